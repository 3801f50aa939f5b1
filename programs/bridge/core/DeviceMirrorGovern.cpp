#include <algorithm>
#include <utility>

#include "programs/bridge/core/DeviceMirror.h"
#include "programs/common/client/Spelling.h"

// How documents are applied.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr int kMaxRounds = 3;             // at once, while neighbours are faster
constexpr Milliseconds kApplyAgain{100};  // and then

std::optional<std::string> ValueOf(const IniFile& settings, const std::string& group, const std::string& key) {
  if (!settings.HasValue(group, key)) return std::nullopt;
  return settings.GetValue(group, key);
}

}  // namespace

// Documents whose moment has come hold from now on: on the disk first, then their keys.
void DeviceMirror::AdvanceDocuments(Milliseconds now) {
  std::set<DocumentName> fresh;
  const std::set<DocumentName> changed = _book.Advance(now, fresh);
  if (changed.empty()) return;
  _targets = _book.ComputeTargets();
  const auto origins = _book.GetOrigins();
  const auto governed = _governed.GetGroups();
  for (const auto& [group, keys] : governed) {
    const auto target = _targets.groups.find(group);
    for (const auto& [key, state] : keys) {
      const bool isNobodys = target == _targets.groups.end() || target->second.count(key) == 0;
      if (isNobodys || fresh.count(state.origin.document) > 0) _governed.Remove(group, key);
    }
  }
  _governed.Commit();
  for (const DocumentName& name : changed) {
    _unsupported.erase(name);
    _blocked.erase(name);
    _heldDocuments.erase(name);
  }
  for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
  if (_targets.groups.empty()) MakeResults();
}

void DeviceMirror::Govern(Milliseconds now) {
  for (auto entry = _blocked.begin(); entry != _blocked.end();) {
    if (entry->second > now) {
      ++entry;
      continue;
    }
    for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
    entry = _blocked.erase(entry);
  }
  if (_ungoverned.empty()) return;
  for (int round = 0; round < kMaxRounds; ++round) {
    if (GovernOnce(now)) {
      _ungoverned.clear();
      break;
    }
  }
  if (!_ungoverned.empty()) {
    _ungoverned.clear();
    for (const auto& [name, origin] : _book.GetOrigins()) _blocked.emplace(name, now + kApplyAgain);
  }
  _governed.Commit();
  MakeResults();
}

// Returns whether everything was done: a neighbour may be faster, or the store be full.
bool DeviceMirror::GovernOnce(Milliseconds now) {
  const IniFile settings = _local.Read(_ungoverned);
  _undecided.clear();
  const std::map<DocumentName, Step> steps = PlanSteps(settings);
  bool isDone = true;
  for (const auto& [name, step] : steps) isDone = CarryOut(name, step, now) && isDone;
  return isDone;
}

std::map<DocumentName, DeviceMirror::Step> DeviceMirror::PlanSteps(const IniFile& settings) {
  std::map<DocumentName, Step> steps;
  for (const std::string& group : _ungoverned) {
    const auto target = _targets.groups.find(group);
    if (target == _targets.groups.end()) continue;
    for (const auto& [key, wanted] : target->second) PlanKey(group, key, wanted, ValueOf(settings, group, key), steps);
  }
  return steps;
}

void DeviceMirror::PlanKey(const std::string& group, const std::string& key, const Target& target,
                           const std::optional<std::string>& shown, std::map<DocumentName, Step>& steps) {
  const MapRule* rule = _rules.Find(group);
  if (rule == nullptr || _rules.IsMasked(group, key)) return;  // the configuration changed since it was taken
  const GovernedKey* last = _governed.Find(group, key);
  const bool isDue = last == nullptr || !(last->origin == target.origin);
  if (!isDue && last->shown == shown) return;

  const bool differs = shown != target.value;
  bool keepsDevices = !isDue && rule->direction == Direction::kBoth && rule->winner == Side::kDevice;
  if (!_governed.HasGroup(group) && differs && shown) {
    if (rule->first == First::kRefuse && !_decision) {
      _undecided.insert(programs::SpellSetting(group, key));
      return;
    }
    keepsDevices = _decision ? *_decision == Side::kDevice : rule->first == First::kDevice;
  }
  if (keepsDevices && differs) return KeepDevices(group, key, target, shown);

  Step& step = steps[target.origin.document];
  step.keys.emplace_back(group, key);
  const bool isLost = !isDue && differs;
  if (isLost) step.conflicts.push_back({group, key, target.value, shown, Side::kDevice});
  if (!differs || (!target.value && !shown)) return;
  if (shown) {
    step.amendment.present.SetValue(group, key, *shown);
  } else {
    step.amendment.absent.SetValue(group, key, "");
  }
  if (target.value) {
    step.amendment.set.SetValue(group, key, *target.value);
  } else {
    step.amendment.unset.SetValue(group, key, "");
    step.losing.insert(group);
  }
}

// The device's value holds until the document's next version.
void DeviceMirror::KeepDevices(const std::string& group, const std::string& key, const Target& target,
                               const std::optional<std::string>& shown) {
  const GovernedKey* last = _governed.Find(group, key);
  const bool isCounted = last != nullptr && last->origin == target.origin && last->isOverridden;
  if (!isCounted) _report.AddConflict({group, key, shown, target.value, Side::kCentre});
  _governed.Set(group, key, {target.origin, shown, true});
}

bool DeviceMirror::CarryOut(const DocumentName& name, const Step& step, Milliseconds now) {
  _heldDocuments.erase(name);
  if (!step.losing.empty() && !_guard.Allow(step.losing, _admitted.size(), now)) {
    _heldDocuments.insert(name);
    _report.Fail("Document '" + name.name + "' would take values from " + std::to_string(step.losing.size()) +
                 " groups, and is held until that is accepted");
    return true;
  }
  settings::Amendment amendment = step.amendment;
  if (!_local.CanRemove() && !amendment.unset.IsEmpty()) {
    for (const auto& [group, keys] : amendment.unset) {
      for (const auto& [key, value] : keys) {
        _unsupported[name][programs::SpellSetting(group, key)] = "the daemon is too old to remove a value";
        ++_report.counters.unsupported;
      }
    }
    amendment.unset.Clear();
  }
  for (const Conflict& conflict : step.conflicts) _report.AddConflict(conflict);
  if (!amendment.set.IsEmpty() || !amendment.unset.IsEmpty()) {
    if (!_local.Amend(amendment)) return false;
    ++_report.counters.applied;
  }
  for (const std::string& group : step.losing) _guard.Release(group);
  RecordApplied(step);
  return true;
}

// Of a key without a value its default may show now: that is what is agreed.
void DeviceMirror::RecordApplied(const Step& step) {
  std::set<std::string> groups;
  for (const auto& [group, key] : step.keys) groups.insert(group);
  const IniFile settings = _local.Read(groups);
  for (const auto& [group, key] : step.keys) {
    const Target& target = _targets.groups.at(group).at(key);
    const auto shown = ValueOf(settings, group, key);
    // A neighbour was faster than this look: another one finds that.
    const bool isOther = target.value && shown != target.value;
    _governed.Set(group, key, {target.origin, isOther ? target.value : shown, false});
  }
}

void DeviceMirror::MakeResults() {
  std::map<std::string, std::string> results;
  std::map<DocumentName, Result> byName;
  for (const auto& [name, origin] : _book.GetOrigins()) {
    if (_heldDocuments.count(name) > 0) continue;
    Result& result = byName[name];
    result.version = origin.version;
    const auto losers = _targets.losers.find(name);
    if (losers != _targets.losers.end()) result.keys = losers->second;
    const auto unsupported = _unsupported.find(name);
    if (unsupported != _unsupported.end()) {
      result.state = ResultState::kUnsupported;
      result.keys.insert(unsupported->second.begin(), unsupported->second.end());
    }
  }
  for (const auto& [group, keys] : _targets.groups) {
    for (const auto& [key, target] : keys) {
      const auto result = byName.find(target.origin.document);
      if (result == byName.end()) continue;
      const std::string spelled = programs::SpellSetting(group, key);
      const GovernedKey* governed = _governed.Find(group, key);
      if (_undecided.count(spelled) > 0) {
        result->second.state = ResultState::kRefused;
        result->second.keys[spelled] = "nothing is agreed yet: a person has to decide";
      } else if (governed != nullptr && governed->isOverridden) {
        result->second.state = std::max(result->second.state, ResultState::kOverridden);
        result->second.keys[spelled] = "the device's value is kept";
      }
    }
  }
  for (const auto& [name, result] : _refused) byName[name] = result;
  // Of documents of one name the one that is closest to the device comes last, and stays.
  for (const auto& [name, result] : byName) results[name.name] = ComposeResult(result);

  for (const auto& [name, text] : results) {
    const auto last = _results.find(name);
    if (last == _results.end() || last->second != text) _schedule.Add(_topics.GetResult(name));
  }
  for (const auto& [name, text] : _results) {
    if (results.count(name) == 0) _schedule.Add(_topics.GetResult(name));
  }
  _results = std::move(results);
}

}  // namespace tavix::bridge
