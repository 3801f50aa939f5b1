#include "programs/bridge/core/DeviceMirror.h"

// What a person is shown of groups that differ: keys that are not what documents want, and groups that are to be
// reported.
namespace tavix::bridge {

using core::IniFile;

GroupDifference DeviceMirror::CompareWithTargets(const std::string& group, const IniFile& settings) const {
  GroupDifference difference{group, {}};
  const auto targets = _targets.groups.find(group);
  if (targets == _targets.groups.end()) return difference;
  for (const auto& [key, target] : targets->second) {
    if (!FindObstacle(group, key).empty()) continue;
    std::optional<std::string> shown;
    if (settings.HasValue(group, key)) shown = settings.GetValue(group, key);
    const GovernedKey* last = _governed.Find(group, key);
    const std::optional<std::string> agreed = last == nullptr ? std::nullopt : last->shown;
    // Without a value of the user's a default may show.
    const bool isApplied = last != nullptr && last->origin == target.origin && !last->isOverridden;
    const bool differs = target.value ? shown != target.value : shown && !(isApplied && shown == agreed);
    if (differs) difference.keys.push_back({key, shown, target.value, agreed});
  }
  return difference;
}

void DeviceMirror::FindDifferences(const TakeDifference& take) {
  const IniFile all = _local.Read(_rules.GetPatterns());
  std::set<std::string> groups;
  for (const auto& [group, keys] : all) groups.insert(group);
  for (const auto& [group, keys] : _targets.groups) groups.insert(group);
  for (const auto& [group, publication] : _publications.GetAll()) groups.insert(group);
  for (const std::string& group : groups) {
    const GroupDifference difference = CompareWithTargets(group, all);
    const std::string topic = _topics.GetReported(group);
    const bool isToSend = _schedule.IsWaiting(topic) || _schedule.IsInFlight(topic);
    if ((isToSend || !difference.keys.empty()) && !take(difference)) return;
  }
}

}  // namespace tavix::bridge
