#include <set>

#include "programs/bridge/core/SharedGroups.h"

// What a person is shown of groups that differ. What stands there is what was last reported; while there is no link, it
// is what was agreed.
namespace tavix::bridge {

namespace {

std::set<std::string> NamesOf(const Keys& one, const Keys& other) {
  std::set<std::string> names;
  for (const Keys* keys : {&one, &other}) {
    for (const auto& [key, value] : *keys) names.insert(key);
  }
  return names;
}

GroupDifference Compare(const std::string& group, const SharedView& view) {
  GroupDifference difference{group, {}};
  const Keys agreed = view.agreed.value_or(Keys());
  for (const std::string& key : NamesOf(view.device, view.centre)) {
    const auto here = FindValue(view.device, key);
    const auto there = FindValue(view.centre, key);
    if (here != there) difference.keys.push_back({key, here, there, FindValue(agreed, key)});
  }
  return difference;
}

}  // namespace

void SharedGroups::FindDifferences(const TakeDifference& take) {
  const core::IniFile all = _local.Read(_rules.GetPatterns());
  std::set<std::string> groups;
  for (const auto& [group, keys] : all) groups.insert(group);
  for (const auto& [group, agreed] : _state.GetAgreed()) groups.insert(group);
  for (const auto& [group, remote] : _remote) groups.insert(group);
  for (const std::string& group : groups) {
    if (_rules.Find(group) == nullptr) continue;
    const GroupDifference difference = Compare(group, LookAt(group, all.HasGroup(group) ? all[group] : Keys()).view);
    if (!difference.keys.empty() && !take(difference)) return;
  }
}

}  // namespace tavix::bridge
