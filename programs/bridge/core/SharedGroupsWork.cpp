#include <algorithm>
#include <utility>

#include "programs/bridge/core/GroupChange.h"
#include "programs/bridge/core/SharedGroups.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

// What follows from what was reported to the mirror. Changes of the state are committed before what they are about is
// forgotten: behind a failure all of it is done again. SharedGroupsSend.cpp has what is sent.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr size_t kBatch = 256;  // groups that are read at once
constexpr Milliseconds kFirstBlockedWait{100};
constexpr Milliseconds kLastBlockedWait{60'000};

}  // namespace

size_t SharedGroups::CountBytes(const std::string& group, const Keys& keys) {
  size_t bytes = group.size();
  for (const auto& [key, value] : keys) bytes += key.size() + value.size();
  return bytes;
}

void SharedGroups::Run(Milliseconds now) {
  if (!CanWork() || !_retry.IsDue(now)) return;
  try {
    Work(now);
    _retry.OnWritten();
  } catch (const LocalLost&) {
    throw;
  } catch (const osa::Exception& error) {
    _retry.OnFailed(error.what(), now);
  }
}

void SharedGroups::Work(Milliseconds now) {
  Confirm();
  if (_isToCompare) CompareAll();
  Reconcile(now);
  SendDue(now);
  KeepFollowed(now);
}

// What the other end took is agreed. Items that are not newer are what was put, or what it replaced.
void SharedGroups::Confirm() {
  for (const auto& [group, agreed] : _confirmed) _state.SetAgreed(group, agreed);
  _state.Commit();
  for (const auto& [group, agreed] : _confirmed) {
    const auto remote = _remote.find(group);
    if (remote != _remote.end() && remote->second.version <= agreed.version) _remote.erase(remote);
    _dirty.insert(group);
  }
  _confirmed.clear();
}

// Behind a new connection of either end nothing is known of what was missed.
void SharedGroups::CompareAll() {
  const IniFile all = _local.Read(_rules.GetPatterns());
  for (const auto& [group, keys] : all) {
    if (_rules.Find(group) == nullptr) continue;
    const SharedView view = LookAt(group, keys).view;
    if (!view.agreed || *view.agreed != view.device || view.centre != view.device) _dirty.insert(group);
  }
  for (const auto& [group, agreed] : _state.GetAgreed()) {
    if (!all.HasGroup(group) || _state.FindIntent(group) != nullptr) _dirty.insert(group);
  }
  for (const auto& [group, remote] : _remote) _dirty.insert(group);
  _isToCompare = false;
}

// The group is gone at both ends: another one may have its place.
void SharedGroups::Release(const std::string& group) {
  _admission.Release(group);
  _guard.Release(group);
  _undecided.erase(group);
  _blocked.erase(group);
  _schedule.Remove(group);
  _allowed.erase(group);
  _refused.erase(group);
  _attempts.erase(group);
  _reported.erase(group);
  _decided.erase(group);
}

void SharedGroups::Reconcile(Milliseconds now) {
  AddDue(now);
  JudgeAll(now);
  for (std::vector<Planned> batch = PlanDirty(); !batch.empty(); batch = PlanDirty()) {
    HoldLosses(batch, now);
    WriteIntents(batch);
    CarryOut(batch, now);
  }
  AddFitting();
}

// What was left out comes once there is room. What stands there of it was not remembered, and is read again.
void SharedGroups::AddFitting() {
  const std::set<std::string> fitting = _admission.TakeFitting();
  const bool isMore = _admission.TakeForgotten();
  const bool isLeftOut = std::any_of(fitting.begin(), fitting.end(), [this](const std::string& group) {
    const auto remote = _remote.find(group);
    return remote != _remote.end() && remote->second.isLeftOut;
  });
  _dirty.insert(fitting.begin(), fitting.end());
  if (isMore) _isToCompare = true;
  if (isLeftOut || (isMore && _isSomethingMissed)) _engine.Follow({_prefix}, 0);
}

void SharedGroups::AddDue(Milliseconds now) {
  for (auto& [group, blocked] : _blocked) {
    if (!blocked.next || *blocked.next > now) continue;
    blocked.next.reset();
    _dirty.insert(group);
  }
  for (auto& [group, refused] : _refused) {
    if (refused.next > now) continue;
    refused.next = now + refused.wait;
    _schedule.Add(group);
  }
}

void SharedGroups::CarryOut(std::vector<Planned>& batch, Milliseconds now) {
  std::vector<const Planned*> applied;
  for (const Planned& planned : batch) {
    if (planned.plan.isUndecided) {
      _dirty.erase(planned.group);
    } else if (Apply(planned)) {
      Agree(planned);
      applied.push_back(&planned);
    } else {
      Block(planned.group, now);
    }
  }
  _state.Commit();
  for (const Planned* planned : applied) Settle(*planned, now);
}

std::vector<SharedGroups::Planned> SharedGroups::PlanDirty() {
  std::vector<Planned> batch;
  while (batch.empty()) {
    std::set<std::string> names;
    for (auto entry = _dirty.begin(); entry != _dirty.end() && names.size() < kBatch;) {
      const auto blocked = _blocked.find(*entry);
      const bool isBlocked = blocked != _blocked.end() && blocked->second.next;
      if (!isBlocked && !_schedule.IsInFlight(*entry)) names.insert(*entry);
      entry = isBlocked ? _dirty.erase(entry) : std::next(entry);
    }
    if (names.empty()) break;
    const IniFile settings = _local.Read(names);
    for (const std::string& group : names) {
      const Keys device = settings.HasGroup(group) ? settings[group] : Keys();
      const auto remote = _remote.find(group);
      const bool isUsable = remote == _remote.end() || remote->second.isUsable;
      const bool isRuled = _rules.Find(group) != nullptr;
      if (!isRuled || IsAbsent(group, device)) {
        _remote.erase(group);
        _dirty.erase(group);
        Release(group);
      } else if (!isUsable || !_admission.Admit(group, CountBytes(group, device))) {
        _dirty.erase(group);
      } else {
        batch.push_back(PlanGroup(group, device));
      }
    }
  }
  return batch;
}

// Whether neither end has the group, and nothing is to be remembered of it.
bool SharedGroups::IsAbsent(const std::string& group, const Keys& device) const {
  const auto remote = _remote.find(group);
  const bool isThere = remote != _remote.end() && remote->second.isThere;
  return device.empty() && !isThere && _state.FindAgreed(group) == nullptr && _state.FindIntent(group) == nullptr;
}

// device: all of its keys. What is masked, here or there, is left out of what is merged. The configuration may have
// changed since it was agreed.
SharedGroups::Planned SharedGroups::LookAt(const std::string& group, const Keys& device) const {
  Planned planned;
  planned.group = group;
  SharedView& view = planned.view;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  const auto remote = _remote.find(group);
  if (agreed != nullptr) {
    view.agreed = agreed->keys;
    view.agreed->insert(agreed->kept.begin(), agreed->kept.end());
    planned.hidden = agreed->hidden;
    view.centre = agreed->keys;
  }
  if (remote != _remote.end()) {
    planned.hidden = remote->second.hidden;
    view.centre = remote->second.keys;
  }
  view.device = device;
  const Intent* intent = _state.FindIntent(group);
  if (intent != nullptr) view.intent = *intent;

  for (auto entry = planned.hidden.begin(); entry != planned.hidden.end();) {
    const bool isOpen = entry->second && !_rules.IsMasked(group, entry->first);
    if (isOpen) view.centre[entry->first] = *entry->second;
    entry = isOpen ? planned.hidden.erase(entry) : std::next(entry);
  }
  for (const auto& [key, value] : view.centre) {
    if (_rules.IsMasked(group, key)) planned.hidden[key] = value;
  }
  for (const auto& [key, value] : device) {
    if (_rules.IsMasked(group, key)) planned.masked.insert(key);
  }
  const auto hide = [&](const std::string& key) {
    for (Keys* keys : {&view.device, &view.centre}) keys->erase(key);
    if (view.agreed) view.agreed->erase(key);
    if (!view.intent) return;
    view.intent->before.erase(key);
    view.intent->after.erase(key);
    for (KeyChanges& changes : view.intent->late) changes.erase(key);
  };
  for (const auto& [key, value] : planned.hidden) hide(key);
  for (const std::string& key : planned.masked) hide(key);
  return planned;
}

SharedGroups::Planned SharedGroups::PlanGroup(const std::string& group, const Keys& device) {
  Planned planned = LookAt(group, device);
  const auto decided = _decided.find(group);
  const auto decision = decided == _decided.end() ? std::nullopt : std::optional<Side>(decided->second);
  planned.plan = MakeSharedPlan(group, *_rules.Find(group), planned.view, decision);
  if (!_local.CanRemove()) KeepUnremovable(planned);
  if (planned.plan.isUndecided) {
    _undecided.insert(group);
  } else {
    _undecided.erase(group);
  }
  return planned;
}

// What an older daemon can't remove stays on the device, and is remembered as what is still to be removed.
void SharedGroups::KeepUnremovable(Planned& planned) {
  for (const auto& [key, value] : planned.view.device) {
    if (planned.plan.device.count(key) == 0) planned.kept[key] = value;
  }
  planned.plan.device.insert(planned.kept.begin(), planned.kept.end());
}

Keys SharedGroups::ReadGroup(const std::string& group) {
  const IniFile settings = _local.Read({group});
  return settings.HasGroup(group) ? settings[group] : Keys();
}

bool SharedGroups::IsLosing(const Planned& planned) {
  return !FindLost(planned.view.device, planned.plan.device).empty() ||
         !FindLost(planned.view.centre, planned.plan.centre).empty();
}

// Of more groups than one batch has, all are judged before the first one loses anything.
void SharedGroups::JudgeAll(Milliseconds now) {
  if (_dirty.size() <= kBatch) return;
  std::set<std::string> losing;
  for (auto next = _dirty.begin(); next != _dirty.end();) {
    std::set<std::string> names;
    for (; next != _dirty.end() && names.size() < kBatch; ++next) names.insert(*next);
    const IniFile settings = _local.Read(names);
    for (const std::string& group : names) {
      const auto remote = _remote.find(group);
      const bool isUsable = remote == _remote.end() || remote->second.isUsable;
      if (!isUsable || _rules.Find(group) == nullptr) continue;
      if (IsLosing(PlanGroup(group, settings.HasGroup(group) ? settings[group] : Keys()))) {
        losing.insert(group);
      } else {
        _guard.Release(group);
      }
    }
  }
  (void)MayLose(losing, now);
}

bool SharedGroups::MayLose(const std::set<std::string>& losing, Milliseconds now) {
  const size_t before = _guard.GetHeld().size();
  if (losing.empty() || _guard.Allow(losing, _admission.CountAdmitted(), now)) return true;
  if (_guard.GetHeld().size() > before) {
    _report.Fail(programs::Join({"A source is suddenly empty: ", std::to_string(_guard.GetHeld().size()),
                                 " groups would lose values and are held until that is accepted"}));
  }
  return false;
}

// Takes the groups out of the batch that may not lose what they would lose.
void SharedGroups::HoldLosses(std::vector<Planned>& batch, Milliseconds now) {
  std::set<std::string> losing;
  for (const Planned& planned : batch) {
    if (IsLosing(planned)) {
      losing.insert(planned.group);
    } else {
      _guard.Release(planned.group);
    }
  }
  if (MayLose(losing, now)) return;
  const auto isHeld = [this](const Planned& planned) { return _guard.GetHeld().count(planned.group) > 0; };
  for (const Planned& planned : batch) {
    if (isHeld(planned)) _dirty.erase(planned.group);
  }
  batch.erase(std::remove_if(batch.begin(), batch.end(), isHeld), batch.end());
}

void SharedGroups::WriteIntents(const std::vector<Planned>& batch) {
  for (const Planned& planned : batch) {
    if (planned.plan.device == planned.view.device) continue;
    _state.SetIntent(planned.group,
                     {Intent::Where::kDevice, planned.view.device, planned.plan.device, FindLate(planned.group)});
  }
  _state.Commit();

  // Before it happens, as nobody could report it behind a power cut; once, however often it takes.
  for (const Planned& planned : batch) {
    if (planned.plan.conflicts.empty()) continue;
    _report.AddConflicts(planned.plan.conflicts, _reported[planned.group]);
  }
}

// Returns whether the device holds what is planned.
bool SharedGroups::Apply(const Planned& planned) {
  settings::Amendment amendment;
  (void)AddChange(amendment, planned.group, planned.view.device, planned.plan.device, true);
  if (IsEmpty(amendment)) return true;
  if (!_local.Amend(amendment)) return false;
  ++_report.counters.applied;
  return true;
}

// A neighbour was faster, or the store refuses the change: the device does not take it now.
void SharedGroups::Block(const std::string& group, Milliseconds now) {
  _dirty.erase(group);
  Blocked& blocked = _blocked[group];
  const size_t doublings = std::min<size_t>(blocked.failures, 10);
  blocked.next = now + std::min(kFirstBlockedWait * (1 << doublings), kLastBlockedWait);
  if (++blocked.failures != kReportedFailures) return;
  ++_report.counters.refused;
  _report.Fail(
      programs::Join({"A change of [", programs::SpellName(group),
                      "] is not taken by the device: its store refuses it, or others change the group all the time"}));
}

// The device has taken in what the centre holds: that is agreed, and what the device holds beyond it is to be sent.
void SharedGroups::Agree(const Planned& planned) {
  const auto remote = _remote.find(planned.group);
  const AgreedGroup* known = _state.FindAgreed(planned.group);
  AgreedGroup agreed;
  agreed.keys = planned.view.centre;
  agreed.hidden = planned.hidden;
  agreed.kept = planned.kept;
  agreed.version = GetExpected(planned.group);
  agreed.isThere = remote != _remote.end() ? remote->second.isThere : known != nullptr && known->isThere;
  const bool isKnown = known == nullptr ? agreed.IsEmpty() : *known == agreed;
  const Intent* intent = _state.FindIntent(planned.group);
  const std::vector<KeyChanges> late = FindLate(planned.group);
  const bool isOver = intent != nullptr && (intent->where != Intent::Where::kNowhere || intent->late != late);
  if (!isKnown || isOver || planned.plan.device != planned.view.device) _state.SetAgreed(planned.group, agreed, late);
  const bool isNewlyKept = !planned.kept.empty() && (known == nullptr || known->kept != planned.kept);
  if (!isNewlyKept) return;
  ++_report.counters.unsupported;
  _report.Fail(programs::Join(
      {"Keys of [", programs::SpellName(planned.group), "] are not removed: the daemon is too old for that"}));
}

void SharedGroups::Settle(const Planned& planned, Milliseconds now) {
  const std::string& group = planned.group;
  _dirty.erase(group);
  _blocked.erase(group);
  _reported.erase(group);
  _remote.erase(group);
  _answered.erase(group);
  const auto refused = _refused.find(group);
  const bool isRefused = refused != _refused.end() && refused->second.keys == planned.plan.centre;
  _allowed.erase(group);
  if (!IsToSend(planned)) {
    _schedule.Remove(group);
    _attempts.erase(group);
    _decided.erase(group);
    _refused.erase(group);
  } else {
    std::set<std::string> lost = FindLost(planned.view.centre, planned.plan.centre);
    if (!lost.empty()) _allowed[group] = std::move(lost);
    if (!isRefused) _schedule.Add(group, FindRetry(group, now));
  }
  if (planned.plan.device.empty() && planned.plan.centre.empty() && planned.masked.empty() && planned.hidden.empty() &&
      _state.FindAgreed(group) == nullptr) {
    Release(group);
  }
}

}  // namespace tavix::bridge
