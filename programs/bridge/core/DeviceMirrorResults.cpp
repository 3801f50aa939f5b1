#include <algorithm>

#include "programs/bridge/core/DeviceMirror.h"
#include "programs/common/client/Spelling.h"

// What became of each document.
namespace tavix::bridge {

void DeviceMirror::MakeResults() {
  std::map<DocumentName, Result> byName;
  std::set<std::string> pending;  // names of documents of which nothing can be said yet
  for (const auto& [name, origin] : _book.GetOrigins()) {
    const auto blocked = _blocked.find(name);
    const bool isBlocked = blocked != _blocked.end();
    if (_heldDocuments.count(name) > 0 || (isBlocked && blocked->second.failures < kReportedFailures)) {
      pending.insert(name.name);
      continue;
    }
    Result& result = byName[name];
    result.version = origin.version;
    if (isBlocked) {
      result.state = ResultState::kRefused;
      result.reason = blocked->second.reason;
      continue;
    }
    const auto losers = _targets.losers.find(name);
    if (losers != _targets.losers.end()) result.keys = losers->second;
    const auto unsupported = _unsupported.find(name);
    if (unsupported == _unsupported.end()) continue;
    result.state = ResultState::kUnsupported;
    result.keys.insert(unsupported->second.begin(), unsupported->second.end());
  }
  AddKeysToResults(byName);
  for (const auto& [name, result] : _refused) byName[name] = result;

  // Of documents of one name the one that is closest to the device comes last, and stays.
  std::map<std::string, std::string> results;
  for (const auto& [name, result] : byName) results[name.name] = ComposeResult(result);
  for (const std::string& name : pending) {
    const auto before = _results.find(name);
    if (before != _results.end()) results.emplace(name, before->second);
  }
  for (const auto& [name, text] : results) {
    const auto last = _results.find(name);
    if (last == _results.end() || last->second != text) _schedule.Add(_topics.GetResult(name));
  }
  for (const auto& [name, text] : _results) {
    if (results.count(name) == 0) _schedule.Add(_topics.GetResult(name));
  }
  _results = std::move(results);
  _areResultsDue = false;
}

void DeviceMirror::AddKeysToResults(std::map<DocumentName, Result>& results) const {
  for (const auto& [group, keys] : _targets.groups) {
    const auto undecided = _undecided.find(group);
    for (const auto& [key, target] : keys) {
      const auto found = results.find(target.origin.document);
      if (found == results.end() || !found->second.reason.empty()) continue;
      Result& result = found->second;
      const std::string obstacle = FindObstacle(group, key);
      const GovernedKey* governed = _governed.Find(group, key);
      if (!obstacle.empty()) {
        result.state = ResultState::kRefused;
        result.keys[programs::SpellSetting(group, key)] = obstacle;
      } else if (undecided != _undecided.end() && undecided->second.count(key) > 0) {
        result.state = ResultState::kRefused;
        result.keys[programs::SpellSetting(group, key)] = "nothing is agreed yet: a person has to decide";
      } else if (governed != nullptr && governed->isOverridden) {
        result.state = std::max(result.state, ResultState::kOverridden);
        result.keys[programs::SpellSetting(group, key)] = "the device's value is kept";
      }
    }
  }
}

}  // namespace tavix::bridge
