#include "tavix/settings/server/DeletedGroupsRecord.h"

#include <algorithm>
#include <utility>

#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

bool IsPattern(const std::string& member) {
  return member.find('*') != std::string::npos;
}

}  // namespace

const DeletedGroupsRecord::Members& DeletedGroupsRecord::MembersOf(const IniFile& settings) const {
  static const Members none;
  const auto record = settings.GetGroups().find(_group);
  return record == settings.GetGroups().end() ? none : record->second;
}

void DeletedGroupsRecord::Read(const IniFile& userSettings) {
  _patterns = 0;
  _elsewhere.clear();
  for (const auto& [key, value] : MembersOf(userSettings)) Note(key, value);
}

void DeletedGroupsRecord::OnMerge(const IniFile& userSettings, const IniFile& settings) {
  const Members& change = MembersOf(settings);
  if (change.empty()) return;
  const Members& members = MembersOf(userSettings);
  for (const auto& [key, value] : change) {
    const auto before = members.find(key);
    if (before != members.end()) Forget(key, before->second);
    Note(key, value);
  }
}

IniFile DeletedGroupsRecord::Add(IniFile& userSettings, const std::set<std::string>& members) {
  IniFile added;
  if (members.empty()) return added;
  Members& record = userSettings[_group];
  for (const std::string& member : members) {
    if (IsMember(record, member)) continue;
    std::string key = member;
    while (record.count(key) != 0) key += '~';
    added[_group].emplace(key, member);
    Note(key, member);
    record.emplace(std::move(key), member);
  }
  return added;
}

size_t DeletedGroupsRecord::CountNewPatterns(const IniFile& userSettings, const std::set<std::string>& members) const {
  const Members& record = MembersOf(userSettings);
  const auto isNew = [&](const std::string& member) { return IsPattern(member) && !IsMember(record, member); };
  return static_cast<size_t>(std::count_if(members.begin(), members.end(), isNew));
}

size_t DeletedGroupsRecord::CountNewPatterns(const IniFile& userSettings, const IniFile& settings) const {
  const Members& change = MembersOf(settings);
  if (change.empty()) return 0;
  const Members& record = MembersOf(userSettings);
  const auto isNew = [&](const auto& entry) {
    const auto before = record.find(entry.first);
    return IsPattern(entry.second) && (before == record.end() || !IsPattern(before->second));
  };
  return static_cast<size_t>(std::count_if(change.begin(), change.end(), isNew));
}

size_t DeletedGroupsRecord::CountNewBytes(const IniFile& userSettings, const std::set<std::string>& members) const {
  if (members.empty()) return 0;
  const Members& record = MembersOf(userSettings);
  size_t bytes = userSettings.HasGroup(_group) ? 0 : StoreAccount::CountGroup(_group, {});
  for (const std::string& member : members) {
    if (!IsMember(record, member)) bytes += StoreAccount::CountSetting(member, member);
  }
  return bytes;
}

bool DeletedGroupsRecord::IsMember(const Members& members, const std::string& value) const {
  const auto own = members.find(value);
  return (own != members.end() && own->second == value) || _elsewhere.count(value) != 0;
}

void DeletedGroupsRecord::Note(const std::string& key, const std::string& value) {
  if (IsPattern(value)) ++_patterns;
  if (key != value) ++_elsewhere[value];
}

void DeletedGroupsRecord::Forget(const std::string& key, const std::string& value) {
  if (IsPattern(value)) --_patterns;
  if (key == value) return;
  const auto found = _elsewhere.find(value);
  if (found != _elsewhere.end() && --found->second == 0) _elsewhere.erase(found);
}

}  // namespace tavix::settings::server
