#include "programs/cli/session/LocalAmendment.h"

#include <algorithm>

namespace tavix::programs::cli {

using core::IniFile;
using settings::Amendment;

namespace {

bool HoldsAll(const IniFile& groups, const IniFile& values) {
  for (const auto& [group, keys] : values) {
    for (const auto& [key, value] : keys) {
      if (!groups.HasValue(group, key) || groups.GetValue(group, key) != value) return false;
    }
  }
  return true;
}

bool HoldsAny(const IniFile& groups, const IniFile& absent) {
  for (const auto& [group, keys] : absent) {
    if (keys.empty() && groups.HasGroup(group)) return true;
    for (const auto& [key, value] : keys) {
      if (groups.HasValue(group, key)) return true;
    }
  }
  return false;
}

void Replace(const IniFile& replaced, IniFile& groups) {
  for (auto group = replaced.begin(); group != replaced.end(); ++group) {
    groups.RemoveGroup(group->first);
    if (!group->second.empty()) groups.MergeGroup(group);
  }
}

// A group goes with its last key.
void Unset(const IniFile& unset, IniFile& groups) {
  for (const auto& [group, keys] : unset) {
    if (!groups.HasGroup(group)) continue;
    for (const auto& [key, value] : keys) groups[group].erase(key);
    if (keys.empty() || groups[group].empty()) groups.RemoveGroup(group);
  }
}

}  // namespace

std::set<std::string> FindGroups(const Amendment& amendment) {
  std::set<std::string> names;
  for (const IniFile* part :
       {&amendment.present, &amendment.absent, &amendment.set, &amendment.unset, &amendment.replace}) {
    for (const auto& [group, keys] : *part) names.insert(group);
  }
  return names;
}

std::optional<IniFile> ApplyAmendment(const Amendment& amendment, IniFile groups) {
  if (!HoldsAll(groups, amendment.present) || HoldsAny(groups, amendment.absent)) return std::nullopt;
  Replace(amendment.replace, groups);
  groups.MergeSettings(amendment.set);
  Unset(amendment.unset, groups);
  return groups;
}

bool LosesSomething(const IniFile& before, const IniFile& after, const std::string& group) {
  if (!before.HasGroup(group)) return false;
  if (!after.HasGroup(group)) return true;
  const IniFile::KeyMap& keys = before[group];
  return std::any_of(keys.begin(), keys.end(), [&](const auto& entry) { return !after.HasValue(group, entry.first); });
}

}  // namespace tavix::programs::cli
