#include <algorithm>
#include <utility>

#include "programs/bridge/core/GroupChange.h"
#include "programs/bridge/core/SharedGroups.h"
#include "programs/bridge/formats/SharedGroup.h"
#include "programs/common/client/Spelling.h"

// What follows from what was reported to the mirror.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr size_t kBatch = 256;  // groups that are read at once
constexpr Milliseconds kApplyAgain{100};

size_t CountBytes(const std::string& group, const Keys& keys) {
  size_t bytes = group.size();
  for (const auto& [key, value] : keys) bytes += key.size() + value.size();
  return bytes;
}

}  // namespace

void SharedGroups::Run(Milliseconds now) {
  if (!CanWork()) return;
  if (_isToCompare) CompareAll();
  Reconcile(now);
  SendDue(now);
  KeepFollowed();
}

// The limit of groups is that of the device's memory and of the other end's.
bool SharedGroups::Admit(const std::string& group, const Keys& keys) {
  const size_t bytes = CountBytes(group, keys);
  const auto known = _admitted.find(group);
  const size_t before = known == _admitted.end() ? 0 : known->second;
  const bool isTooMuch = (known == _admitted.end() && _admitted.size() >= _limits.maxGroups) ||
                         (bytes > before && _admittedBytes - before + bytes > _limits.maxPendingBytes);
  if (isTooMuch) {
    if (_leftOut.size() < _limits.maxGroups && _leftOut.insert(group).second) {
      ++_report.counters.leftOut;
      _report.Fail("[" + programs::SpellName(group) + "] is left out: " + std::to_string(_admitted.size()) +
                   " groups of " + std::to_string(_admittedBytes) + " bytes are mirrored already");
    }
    return false;
  }
  _leftOut.erase(group);
  _admittedBytes += bytes - before;
  _admitted[group] = bytes;
  return true;
}

// Behind a new connection of either end nothing is known of what was missed.
void SharedGroups::CompareAll() {
  const IniFile all = _local.Read(_rules.GetPatterns());
  for (const auto& [group, keys] : all) {
    if (_rules.Find(group) == nullptr) continue;
    const AgreedGroup* agreed = _state.FindAgreed(group);
    if (agreed == nullptr || agreed->keys != WithoutMasked(group, keys)) _dirty.insert(group);
  }
  for (const auto& [group, agreed] : _state.GetAgreed()) {
    if (!all.HasGroup(group)) _dirty.insert(group);
  }
  for (const auto& [group, remote] : _remote) _dirty.insert(group);
  _isToCompare = false;
}

void SharedGroups::Reconcile(Milliseconds now) {
  for (auto entry = _blocked.begin(); entry != _blocked.end();) {
    if (entry->second <= now) _dirty.insert(entry->first);
    entry = entry->second <= now ? _blocked.erase(entry) : std::next(entry);
  }
  for (std::vector<Planned> batch = PlanDirty(); !batch.empty(); batch = PlanDirty()) {
    HoldLosses(batch, now);
    WriteIntents(batch);
    for (const Planned& planned : batch) {
      const bool isApplied = Apply(planned);
      _dirty.erase(planned.group);
      if (isApplied) {
        Settle(planned, now);
      } else {
        // A neighbour was faster, or the store is full.
        _blocked[planned.group] = now + kApplyAgain;
      }
    }
    _state.Commit();
  }
}

std::vector<SharedGroups::Planned> SharedGroups::PlanDirty() {
  std::set<std::string> names;
  for (const std::string& group : _dirty) {
    if (!_schedule.IsInFlight(group)) names.insert(group);
    if (names.size() == kBatch) break;
  }
  std::vector<Planned> batch;
  if (names.empty()) return batch;
  const IniFile settings = _local.Read(names);
  for (const std::string& group : names) {
    const Keys device = settings.HasGroup(group) ? WithoutMasked(group, settings[group]) : Keys();
    const auto remote = _remote.find(group);
    const bool isReadable = remote == _remote.end() || remote->second.isReadable;
    if (!isReadable || _rules.Find(group) == nullptr || !Admit(group, device)) {
      _dirty.erase(group);
      continue;
    }
    batch.push_back(PlanGroup(group, device));
  }
  // All of them were put aside: there may be others.
  return batch.empty() ? PlanDirty() : batch;
}

SharedGroups::Planned SharedGroups::PlanGroup(const std::string& group, const Keys& device) {
  Planned planned;
  planned.group = group;
  SharedView& view = planned.view;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  if (agreed != nullptr) view.agreed = agreed->keys;
  view.device = device;
  const auto remote = _remote.find(group);
  view.centre = remote != _remote.end() ? remote->second.keys : view.agreed.value_or(Keys());
  const Intent* intent = _state.FindIntent(group);
  if (intent != nullptr) view.intent = *intent;

  const MapRule& rule = *_rules.Find(group);
  const auto attempts = _attempts.find(group);
  const bool isOver = attempts != _attempts.end() && attempts->second >= _limits.maxAttempts;
  planned.plan = isOver ? MakeWinnersPlan(group, rule, view) : MakeSharedPlan(group, rule, view, _decision);
  if (planned.plan.isUndecided) {
    _undecided.insert(group);
  } else {
    _undecided.erase(group);
  }
  return planned;
}

Keys SharedGroups::ReadGroup(const std::string& group) {
  const IniFile settings = _local.Read({group});
  return settings.HasGroup(group) ? WithoutMasked(group, settings[group]) : Keys();
}

Keys SharedGroups::WithoutMasked(const std::string& group, const Keys& keys) const {
  Keys open = keys;
  for (auto entry = open.begin(); entry != open.end();) {
    entry = _rules.IsMasked(group, entry->first) ? open.erase(entry) : std::next(entry);
  }
  return open;
}

// Takes the groups out of the batch that may not lose what they would lose.
void SharedGroups::HoldLosses(std::vector<Planned>& batch, Milliseconds now) {
  std::set<std::string> losing;
  for (const Planned& planned : batch) {
    const bool isLosing =
        TakesValues(planned.view.device, planned.plan.device) || TakesValues(planned.view.centre, planned.plan.centre);
    if (isLosing) {
      losing.insert(planned.group);
    } else {
      _guard.Release(planned.group);
    }
  }
  const size_t before = _guard.GetHeld().size();
  if (losing.empty() || _guard.Allow(losing, _admitted.size(), now)) return;
  if (_guard.GetHeld().size() > before) {
    _report.Fail("A source is suddenly empty: " + std::to_string(_guard.GetHeld().size()) +
                 " groups would lose values and are held until that is accepted");
  }
  const auto isHeld = [this](const Planned& planned) { return _guard.GetHeld().count(planned.group) > 0; };
  for (const Planned& planned : batch) {
    if (isHeld(planned)) _dirty.erase(planned.group);
  }
  batch.erase(std::remove_if(batch.begin(), batch.end(), isHeld), batch.end());
}

void SharedGroups::WriteIntents(const std::vector<Planned>& batch) {
  for (const Planned& planned : batch) {
    if (planned.plan.device == planned.view.device) continue;
    _state.SetIntent(planned.group, {Intent::Where::kDevice, planned.view.device, planned.plan.device});
  }
  _state.Commit();

  // Before it happens, as nobody could report it behind a power cut; once, however often it takes.
  for (const Planned& planned : batch) {
    std::vector<Conflict>& reported = _reported[planned.group];
    for (const Conflict& conflict : planned.plan.conflicts) {
      if (std::find(reported.begin(), reported.end(), conflict) != reported.end()) continue;
      _report.AddConflict(conflict);
      reported.push_back(conflict);
    }
  }
}

// Returns whether the device holds what is planned, as far as its daemon can.
bool SharedGroups::Apply(const Planned& planned) {
  settings::Amendment amendment;
  const bool stays = AddChange(amendment, planned.group, planned.view.device, planned.plan.device, _local.CanRemove());
  if (stays && _unsupported.insert(planned.group).second) {
    ++_report.counters.unsupported;
    _report.Fail("Keys of [" + programs::SpellName(planned.group) +
                 "] are not removed: the daemon is too old for that");
  }
  if (!stays) _unsupported.erase(planned.group);
  if (IsEmpty(amendment)) return true;
  if (!_local.Amend(amendment)) return false;
  ++_report.counters.applied;
  return true;
}

// The device has taken in what the centre holds: that is agreed, and what the device holds beyond it is to be sent.
void SharedGroups::Settle(const Planned& planned, Milliseconds now) {
  const std::string& group = planned.group;
  if (planned.plan.isUndecided) return;
  _reported.erase(group);

  AgreedGroup agreed{planned.view.centre, GetVersion(group)};
  if (_unsupported.count(group) > 0) {
    // What could not be removed is agreed as it was: the removal is still to come.
    for (const auto& [key, value] : planned.view.device) {
      if (planned.plan.device.count(key) == 0) agreed.keys.emplace(key, value);
    }
    agreed.version = 0;
  } else {
    _remote.erase(group);
  }
  const AgreedGroup* known = _state.FindAgreed(group);
  const bool isKnown =
      known == nullptr ? agreed.keys.empty() : known->keys == agreed.keys && known->version == agreed.version;
  if (!isKnown || planned.view.intent || planned.plan.device != planned.view.device) _state.SetAgreed(group, agreed);

  const auto refused = _refused.find(group);
  const bool isRefused = refused != _refused.end() && refused->second == planned.plan.centre;
  if (planned.plan.centre == planned.view.centre) {
    _schedule.Remove(group);
    _attempts.erase(group);
  } else if (!isRefused) {
    _schedule.Add(group, FindRetry(group, now));
  }
}

void SharedGroups::SendDue(Milliseconds now) {
  while (const auto group = _schedule.Take(now)) {
    const Planned planned = PlanGroup(*group, ReadGroup(*group));
    // It changed since it was looked at: another look decides what is to be done, and asks the guard.
    const bool isAsPlanned = !planned.plan.isUndecided && planned.plan.centre != planned.view.centre &&
                             planned.plan.device == planned.view.device && planned.plan.conflicts.empty();
    if (!isAsPlanned || _dirty.count(*group) > 0) {
      _dirty.insert(*group);
      continue;
    }
    if (!Send(planned, now)) {
      _schedule.Add(*group);
      return;
    }
  }
}

bool SharedGroups::Send(const Planned& planned, Milliseconds now) {
  const std::string& group = planned.group;
  std::optional<std::string> bytes;
  if (!planned.plan.centre.empty()) {
    Keys all = planned.plan.centre;
    std::set<std::string> masked;
    const IniFile settings = _local.Read({group});
    for (const auto& [key, value] : settings.HasGroup(group) ? settings[group] : Keys()) {
      if (_rules.IsMasked(group, key)) masked.insert(key);
    }
    for (const std::string& key : masked) all[key];
    bytes = ComposeSharedGroup(all, masked);
  }
  PutOptions options;
  const auto attempts = _attempts.find(group);
  const bool isOver = attempts != _attempts.end() && attempts->second >= _limits.maxAttempts;
  if (!isOver) options.expected = GetVersion(group);

  _state.SetIntent(group, {Intent::Where::kCentre, planned.view.centre, planned.plan.centre});
  _state.Commit();
  if (!_engine.Put(_prefix + group, bytes, options)) return false;
  _schedule.OnSent(group, now);
  _sent[group] = planned.plan.centre;
  return true;
}

// Items up to here are agreed, all of them: another start may go on behind them.
void SharedGroups::KeepFollowed() {
  if (!_remote.empty() || !_dirty.empty()) return;
  if (_followed == _state.GetFollowed() && _source == _state.GetSource()) return;
  _state.SetFollowed(_source, _followed);
  _state.Commit();
}

// Of the item that stands there, as far as it is known; 0: there is none.
Version SharedGroups::GetVersion(const std::string& group) const {
  const auto remote = _remote.find(group);
  if (remote != _remote.end()) return remote->second.isThere ? remote->second.version : 0;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  return agreed == nullptr ? 0 : agreed->version;
}

// Others who got ahead will try again, too: each at another moment.
Milliseconds SharedGroups::FindRetry(const std::string& group, Milliseconds now) {
  const auto attempts = _attempts.find(group);
  if (attempts == _attempts.end()) return now;
  std::uniform_int_distribution<Milliseconds::rep> within(0, 100 << std::min<size_t>(attempts->second, 8));
  return now + Milliseconds(within(_random));
}

}  // namespace tavix::bridge
