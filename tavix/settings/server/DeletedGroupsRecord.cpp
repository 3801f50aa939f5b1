#include "tavix/settings/server/DeletedGroupsRecord.h"

#include <utility>

namespace tavix::settings::server {

using core::IniFile;

namespace {

bool IsPattern(const std::string& member) {
  return member.find('*') != std::string::npos;
}

// A record and settings that will be merged into it, looked up as if they were.
class MergedMembers {
 public:
  MergedMembers(const IniFile::KeyMap& record, const IniFile::KeyMap& settings)
      : _record(record), _settings(settings) {}

  // Null: there is no such key.
  const std::string* Find(const std::string& key) const {
    for (const IniFile::KeyMap* keys : {&_settings, &_record}) {
      const auto found = keys->find(key);
      if (found != keys->end()) return &found->second;
    }
    return nullptr;
  }

  bool HoldsUnderItsText(const std::string& member) const {
    const std::string* value = Find(member);
    return value && *value == member;
  }

 private:
  const IniFile::KeyMap& _record;
  const IniFile::KeyMap& _settings;
};

}  // namespace

const DeletedGroupsRecord::Members& DeletedGroupsRecord::MembersOf(const IniFile& settings) const {
  static const Members none;
  const auto record = settings.GetGroups().find(_group);
  return record == settings.GetGroups().end() ? none : record->second;
}

void DeletedGroupsRecord::Count(Change& change, const std::string& key, const std::string& value, int more) {
  if (IsPattern(value)) change.patterns += more;
  if (key != value) change.elsewhere[value] += more;
}

void DeletedGroupsRecord::Read(const IniFile& userSettings) {
  Change change;
  change.isCleared = true;
  for (const auto& [key, value] : MembersOf(userSettings)) Count(change, key, value, 1);
  CarryOut(change);
}

DeletedGroupsRecord::Change DeletedGroupsRecord::Plan(const IniFile& userSettings, bool isRemoved,
                                                      const IniFile& settings,
                                                      const std::set<std::string>& members) const {
  static const Members none;
  const Members& record = isRemoved ? none : MembersOf(userSettings);
  const Members& merged = MembersOf(settings);
  Change change;
  change.isCleared = isRemoved;
  for (const auto& [key, value] : merged) {
    const auto before = record.find(key);
    if (before != record.end()) Count(change, key, before->second, -1);
    Count(change, key, value, 1);
  }
  const MergedMembers known(record, merged);
  for (const std::string& member : members) {
    if (known.HoldsUnderItsText(member) || IsElsewhere(change, member)) continue;
    Members& added = change.added[_group];
    std::string key = member;
    while (known.Find(key) || added.count(key) != 0) key += '~';
    Count(change, key, member, 1);
    added.emplace(std::move(key), member);
  }
  return change;
}

bool DeletedGroupsRecord::IsElsewhere(const Change& change, const std::string& member) const {
  const auto before = change.isCleared ? _elsewhere.end() : _elsewhere.find(member);
  const auto more = change.elsewhere.find(member);
  return (before == _elsewhere.end() ? 0 : before->second) + (more == change.elsewhere.end() ? 0 : more->second) > 0;
}

void DeletedGroupsRecord::CarryOut(Change& change) noexcept {
  if (change.isCleared) {
    _patterns = 0;
    _elsewhere.clear();
  }
  _patterns += change.patterns;
  for (auto next = change.elsewhere.begin(); next != change.elsewhere.end();) {
    const auto more = next++;
    const auto own = _elsewhere.find(more->first);
    if (own != _elsewhere.end()) {
      own->second += more->second;
      if (own->second == 0) _elsewhere.erase(own);
    } else if (more->second != 0) {
      _elsewhere.insert(change.elsewhere.extract(more));
    }
  }
}

}  // namespace tavix::settings::server
