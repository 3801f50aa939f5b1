#include "tavix/settings/server/GroupDiscriminator.h"

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

bool IsSecureGroup(const std::string& group) {
  return group.find("Secure") != std::string::npos;
}

template <class Predicate>
void RemoveGroupsIf(IniFile& ini, Predicate isUnwanted) {
  for (auto next = ini.begin(); next != ini.end();) {
    const auto group = next++;
    if (isUnwanted(group->first)) ini.RemoveGroup(group);
  }
}

}  // namespace

bool GroupDiscriminator::IsRestrictedGroup(const std::string& group) {
  return IsSecureGroup(group) || group.find("Trusted") != std::string::npos;
}

void GroupDiscriminator::MergeUnrestrictedGroups(IniFile& dst, const IniFile& src) {
  for (const auto& group : src) {
    if (!IsRestrictedGroup(group.first)) dst.MergeSettings(src, group.first);
  }
}

void GroupDiscriminator::FilterOutRestrictedGroups(std::set<std::string>& groups) {
  for (auto next = groups.begin(); next != groups.end();) {
    next = IsRestrictedGroup(*next) ? groups.erase(next) : std::next(next);
  }
}

void GroupDiscriminator::FilterOutRestrictedGroups(IniFile& ini) {
  RemoveGroupsIf(ini, IsRestrictedGroup);
}

void GroupDiscriminator::FilterOutSecureGroups(IniFile& ini) {
  RemoveGroupsIf(ini, IsSecureGroup);
}

}  // namespace tavix::settings::server
