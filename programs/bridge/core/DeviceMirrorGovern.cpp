#include <algorithm>
#include <utility>

#include "programs/bridge/core/DeviceMirror.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

// How documents are applied: each as one step, whole or not at all.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr int kMaxRounds = 3;  // at once, while neighbours are faster
constexpr Milliseconds kFirstBlockedWait{100};
constexpr Milliseconds kLastBlockedWait{60'000};

std::optional<std::string> ValueOf(const IniFile& settings, const std::string& group, const std::string& key) {
  if (!settings.HasValue(group, key)) return std::nullopt;
  return settings.GetValue(group, key);
}

// Whether the store refuses the change, or a neighbour was faster.
bool DoConditionsHold(const settings::Amendment& amendment, const IniFile& now) {
  for (const auto& [group, keys] : amendment.present) {
    for (const auto& [key, value] : keys) {
      if (ValueOf(now, group, key) != value) return false;
    }
  }
  for (const auto& [group, keys] : amendment.absent) {
    for (const auto& [key, value] : keys) {
      if (now.HasValue(group, key)) return false;
    }
  }
  return true;
}

}  // namespace

// Documents whose moment has come hold from now on: on the disk first, then their keys.
void DeviceMirror::AdvanceDocuments(Milliseconds now) {
  std::set<DocumentName> fresh;
  const std::set<DocumentName> changed = _book.Advance(now, fresh);
  if (!changed.empty()) {
    for (const DocumentName& name : changed) ForgetAttempts(name);
    SetTargets(fresh);
    for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
    _areResultsDue = true;
    _mayHaveRoom = true;
  }
  _governed.Commit();
}

// What another thing was tried with.
void DeviceMirror::ForgetAttempts(const DocumentName& name) {
  for (const std::string& group : _groupsOf[name]) _guard.Release(group);
  _unsupported.erase(name);
  _blocked.erase(name);
  _heldDocuments.erase(name);
  _acceptedDocuments.erase(name);
  _reported.erase(name);
}

// What was agreed of keys ends when nobody governs them any more, or a document of a new epoch does.
void DeviceMirror::SetTargets(const std::set<DocumentName>& fresh) {
  _targets = _book.ComputeTargets();
  _groupsOf.clear();
  for (const auto& [group, keys] : _targets.groups) {
    for (const auto& [key, target] : keys) _groupsOf[target.origin.document].insert(group);
  }
  const auto governed = _governed.GetGroups();
  for (const auto& [group, keys] : governed) {
    const auto target = _targets.groups.find(group);
    for (const auto& [key, state] : keys) {
      const bool isNobodys = target == _targets.groups.end() || target->second.count(key) == 0;
      if (isNobodys || fresh.count(state.origin.document) > 0) _governed.Remove(group, key);
    }
  }
}

void DeviceMirror::Govern(Milliseconds now) {
  AddDue(now);
  if (_ungoverned.empty()) return;
  AddWholeDocuments();
  std::set<DocumentName> failed;
  for (int round = 0; round < kMaxRounds; ++round) {
    failed = GovernOnce(now);
    if (failed.empty()) break;
  }
  for (const DocumentName& name : failed) Block(name, now);
  _governed.Commit();
  _ungoverned.clear();
  _areResultsDue = true;
}

void DeviceMirror::AddDue(Milliseconds now) {
  for (auto& [name, blocked] : _blocked) {
    if (!blocked.next || *blocked.next > now) continue;
    blocked.next.reset();
    const std::set<std::string>& groups = _groupsOf[name];
    _ungoverned.insert(groups.begin(), groups.end());
  }
}

// A document that is not applied yet is looked at as a whole, though one of its groups alone has changed.
void DeviceMirror::AddWholeDocuments() {
  std::set<DocumentName> pending = _heldDocuments;
  for (const auto& [name, blocked] : _blocked) pending.insert(name);
  for (const DocumentName& name : pending) {
    const std::set<std::string>& groups = _groupsOf[name];
    const bool isTouched = std::any_of(groups.begin(), groups.end(),
                                       [this](const std::string& group) { return _ungoverned.count(group) > 0; });
    if (isTouched) _ungoverned.insert(groups.begin(), groups.end());
  }
}

// Returns the documents that were not applied: a neighbour may be faster, or the store refuse it.
std::set<DocumentName> DeviceMirror::GovernOnce(Milliseconds now) {
  const PresentKeys present = ReadPresent();
  for (const std::string& group : _ungoverned) _undecided.erase(group);
  const std::map<DocumentName, DocumentStep> steps = PlanSteps(present);
  ReleaseHeld(steps);
  std::set<DocumentName> failed;
  for (const auto& [name, step] : steps) {
    if (CarryOut(name, step, now)) {
      _blocked.erase(name);
    } else {
      failed.insert(name);
    }
  }
  return failed;
}

// The user's layer is read only where it matters: for keys that are to show their default, and at a first application.
PresentKeys DeviceMirror::ReadPresent() {
  PresentKeys present;
  present.shown = _local.Read(_ungoverned);
  std::set<std::string> groups;
  for (const std::string& group : _ungoverned) {
    const auto targets = _targets.groups.find(group);
    if (targets == _targets.groups.end()) continue;
    for (const auto& [key, target] : targets->second) {
      const auto shown = ValueOf(present.shown, group, key);
      const GovernedKey* last = _governed.Find(group, key);
      const bool isNews = last == nullptr || !(last->origin == target.origin) || last->shown != shown;
      if (isNews && shown && shown != target.value && (!target.value || last == nullptr)) groups.insert(group);
    }
  }
  if (!groups.empty()) present.users = _local.ReadUsers(groups);
  return present;
}

std::map<DocumentName, DocumentStep> DeviceMirror::PlanSteps(const PresentKeys& present) {
  std::map<DocumentName, DocumentStep> steps;
  for (const std::string& group : _ungoverned) {
    const auto target = _targets.groups.find(group);
    if (target == _targets.groups.end()) continue;
    for (const auto& [key, wanted] : target->second) PlanKey(group, key, present, steps);
  }
  return steps;
}

// What is agreed of a key. A step of which nobody knows if it was made was made, if the key is no longer what it was.
std::optional<GovernedKey> DeviceMirror::FindLast(const std::string& group, const std::string& key, bool isOfUser,
                                                  const std::optional<std::string>& shown) const {
  const Target& target = _targets.groups.at(group).at(key);
  const GovernedKey* last = _governed.Find(group, key);
  const StepIntent* intent = _governed.FindIntent(target.origin.document);
  const bool isRecorded = last != nullptr && last->origin == target.origin;
  const bool isOfIntent = !isRecorded && intent != nullptr && intent->epoch == target.origin.epoch &&
                          intent->version == target.origin.version;
  if (isOfIntent && intent->before.count(group) > 0 && intent->before.at(group).count(key) > 0) {
    const bool isMade = shown != intent->before.at(group).at(key) && (target.value || isOfUser);
    if (isMade) return GovernedKey{target.origin, target.value, false};
  }
  return last == nullptr ? std::nullopt : std::optional<GovernedKey>(*last);
}

void DeviceMirror::PlanKey(const std::string& group, const std::string& key, const PresentKeys& present,
                           std::map<DocumentName, DocumentStep>& steps) {
  const Target& target = _targets.groups.at(group).at(key);
  const auto blocked = _blocked.find(target.origin.document);
  const bool isWaiting = blocked != _blocked.end() && blocked->second.next;
  if (isWaiting || !FindObstacle(group, key).empty()) return;  // the configuration changed since it was taken

  const auto shown = ValueOf(present.shown, group, key);
  const bool isOfUser = present.users.HasValue(group, key);
  const auto last = FindLast(group, key, isOfUser, shown);
  const bool isDue = !last || !(last->origin == target.origin);
  if (!isDue && last->shown == shown) {
    if (_governed.Find(group, key) == nullptr) _governed.Set(group, key, *last);
    return;
  }
  // Without a value of the user's there is nothing to take away: a default may show, and may be a new one.
  const bool differs = target.value ? shown != target.value : shown && isOfUser;
  const MapRule& rule = *_rules.Find(group);
  bool keepsDevices = !isDue && rule.direction == Direction::kBoth && rule.winner == Side::kDevice;
  if (!_governed.HasGroup(group) && differs && isOfUser && !last) {
    const auto decided = _decided.find(programs::SpellSetting(group, key));
    if (rule.first == First::kRefuse && decided == _decided.end()) {
      _undecided[group].insert(key);
      return;
    }
    keepsDevices = decided != _decided.end() ? decided->second == Side::kDevice : rule.first == First::kDevice;
  }
  if (keepsDevices && differs) return KeepDevices(group, key, shown);

  DocumentStep& step = steps[target.origin.document];
  step.keys.emplace_back(group, key);
  if (!differs) return;
  const bool isLost = last ? last->shown != shown : isOfUser;
  if (isLost) step.conflicts.push_back({group, key, target.value, shown, Side::kDevice});
  AddToStep(step, group, key, shown, target.value);
}

void DeviceMirror::AddToStep(DocumentStep& step, const std::string& group, const std::string& key,
                             const std::optional<std::string>& shown, const std::optional<std::string>& value) {
  if (shown) {
    step.amendment.present.SetValue(group, key, *shown);
  } else {
    step.amendment.absent.SetValue(group, key, "");
  }
  if (value) {
    step.amendment.set.SetValue(group, key, *value);
  } else {
    step.amendment.unset.SetValue(group, key, "");
    step.losing.insert(group);
  }
}

// The device's value holds until the document's next version.
void DeviceMirror::KeepDevices(const std::string& group, const std::string& key,
                               const std::optional<std::string>& shown) {
  const Target& target = _targets.groups.at(group).at(key);
  const GovernedKey* last = _governed.Find(group, key);
  const bool isCounted = last != nullptr && last->origin == target.origin && last->isOverridden;
  if (!isCounted) _report.AddConflict({group, key, shown, target.value, Side::kCentre});
  _governed.Set(group, key, {target.origin, shown, true});
}

// Returns whether it is done, or held. What is about to be done is on the disk before.
bool DeviceMirror::CarryOut(const DocumentName& name, const DocumentStep& step, Milliseconds now) {
  if (IsHeld(name, step, now)) return true;
  const settings::Amendment amendment = WithoutUnsupported(name, step.amendment);
  if (!amendment.set.IsEmpty() || !amendment.unset.IsEmpty()) {
    SetIntent(name, step);
    _governed.Commit();
    // Before it happens, as nobody could report it behind a power cut; once, however often it takes.
    _report.AddConflicts(step.conflicts, _reported[name]);
    if (!_local.Amend(amendment)) {
      _governed.RemoveIntent(name);
      if (!DoConditionsHold(amendment, _local.Read(GroupsOf(step)))) return false;
      _blocked[name].reason = "the store refuses it";
      return false;
    }
    ++_report.counters.applied;
  }
  RecordApplied(step);
  _governed.RemoveIntent(name);
  _reported.erase(name);
  return true;
}

void DeviceMirror::SetIntent(const DocumentName& name, const DocumentStep& step) {
  const auto& [firstGroup, firstKey] = step.keys.front();
  const Origin& origin = _targets.groups.at(firstGroup).at(firstKey).origin;
  StepIntent intent{origin.epoch, origin.version, {}};
  for (const auto& [group, key] : step.keys) intent.before[group][key] = ValueOf(step.amendment.present, group, key);
  _governed.SetIntent(name, intent);
}

// What no document that is held would take any more, as others decide it by now or the device holds what is wanted.
// Documents that are looked at are looked at as a whole.
void DeviceMirror::ReleaseHeld(const std::map<DocumentName, DocumentStep>& steps) {
  std::set<std::string> released = _guard.GetHeld();
  for (auto name = _heldDocuments.begin(); name != _heldDocuments.end();) {
    const std::set<std::string>& groups = _groupsOf[*name];
    const bool isLookedAt = std::all_of(groups.begin(), groups.end(),
                                        [this](const std::string& group) { return _ungoverned.count(group) > 0; });
    const auto step = steps.find(*name);
    if (isLookedAt && step == steps.end()) {
      name = _heldDocuments.erase(name);
      continue;
    }
    for (const std::string& group : isLookedAt ? step->second.losing : groups) released.erase(group);
    ++name;
  }
  for (const std::string& group : released) _guard.Release(group);
}

bool DeviceMirror::IsHeld(const DocumentName& name, const DocumentStep& step, Milliseconds now) {
  const bool isAccepted = step.losing.empty() || _acceptedDocuments.count(name) > 0;
  if (isAccepted || _guard.Allow(step.losing, std::max(_live.size(), step.losing.size()), now)) {
    for (const std::string& group : step.losing) _guard.Release(group);
    _heldDocuments.erase(name);
    return false;
  }
  if (_heldDocuments.insert(name).second) {
    _report.Fail(programs::Join({"Document '", name.name, "' would take values from ",
                                 std::to_string(step.losing.size()), " groups, and is held until that is accepted"}));
  }
  return true;
}

settings::Amendment DeviceMirror::WithoutUnsupported(const DocumentName& name, const settings::Amendment& amendment) {
  settings::Amendment supported = amendment;
  if (_local.CanRemove()) return supported;
  for (const auto& [group, keys] : amendment.unset) {
    for (const auto& [key, value] : keys) {
      const std::string spelled = programs::SpellSetting(group, key);
      const bool isNew = _unsupported[name].emplace(spelled, "the daemon is too old to remove a value").second;
      if (isNew) ++_report.counters.unsupported;
    }
  }
  supported.unset.Clear();
  return supported;
}

void DeviceMirror::Block(const DocumentName& name, Milliseconds now) {
  BlockedDocument& blocked = _blocked[name];
  const size_t doublings = std::min<size_t>(blocked.failures, 10);
  blocked.next = now + std::min(kFirstBlockedWait * (1 << doublings), kLastBlockedWait);
  if (blocked.reason.empty()) blocked.reason = "others change its values all the time";
  if (++blocked.failures != kReportedFailures) return;
  ++_report.counters.refused;
  _report.Fail(programs::Join({"Document '", name.name, "' is not taken by the device: ", blocked.reason}));
}

std::set<std::string> DeviceMirror::GroupsOf(const DocumentStep& step) {
  std::set<std::string> groups;
  for (const auto& [group, key] : step.keys) groups.insert(group);
  return groups;
}

// Of a key without a value its default may show now: that is what is agreed.
void DeviceMirror::RecordApplied(const DocumentStep& step) {
  const IniFile settings = _local.Read(GroupsOf(step));
  for (const auto& [group, key] : step.keys) {
    const Target& target = _targets.groups.at(group).at(key);
    const auto shown = ValueOf(settings, group, key);
    // A neighbour was faster than this look: another one finds that.
    const bool isOther = target.value && shown != target.value;
    _governed.Set(group, key, {target.origin, isOther ? target.value : shown, false});
    _decided.erase(programs::SpellSetting(group, key));
  }
}

}  // namespace tavix::bridge
