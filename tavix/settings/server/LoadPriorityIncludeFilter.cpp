#include "tavix/settings/server/LoadPriorityIncludeFilter.h"

#include "tavix/core/IniFile.h"
#include "tavix/core/StringUtil.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

LoadPriorityIncludeFilter::Priorities ReadPriorities(const IniFile& ini) {
  LoadPriorityIncludeFilter::Priorities priorities;
  if (!ini.HasGroup(LoadPriorityIncludeFilter::kGroup)) return priorities;
  for (const auto& [group, text] : ini[LoadPriorityIncludeFilter::kGroup]) {
    int priority = 0;
    if (core::StringUtil::TryParse(text, priority) && !GroupDiscriminator::IsRestrictedGroup(group))
      priorities[group] = priority;
  }
  return priorities;
}

}  // namespace

void LoadPriorityIncludeFilter::FilterIni(IniFile& ini) {
  const Priorities incoming = ReadPriorities(ini);
  osa::PlainMutexLock lock(_mutex);
  RemoveOutrankedGroups(ini, incoming);
  RaisePriorities(incoming);
  ini.RemoveGroup(kGroup);
}

void LoadPriorityIncludeFilter::MergePriorities(const Priorities& more) {
  osa::PlainMutexLock lock(_mutex);
  RaisePriorities(more);
}

void LoadPriorityIncludeFilter::RaisePriorities(const Priorities& more) {
  for (const auto& [group, priority] : more) {
    const auto [known, added] = _priorities.emplace(group, priority);
    if (!added && known->second < priority) known->second = priority;
  }
}

void LoadPriorityIncludeFilter::RemoveOutrankedGroups(IniFile& ini, const Priorities& incoming) const {
  if (_priorities.empty()) return;
  for (auto next = ini.begin(); next != ini.end();) {
    const auto group = next++;
    const auto known = _priorities.find(group->first);
    if (known == _priorities.end()) continue;
    const auto given = incoming.find(group->first);
    if (given == incoming.end() || given->second < known->second) ini.RemoveGroup(group);
  }
}

}  // namespace tavix::settings::server
