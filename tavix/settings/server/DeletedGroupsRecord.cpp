#include "tavix/settings/server/DeletedGroupsRecord.h"

#include <utility>

namespace tavix::settings::server {

using core::IniFile;

namespace {

using Counts = DeletedGroupsRecord::Counts;

// Can't fail: what is new to the counts moves there.
void AddCounts(Counts& counts, Counts& more) noexcept {
  for (auto next = more.begin(); next != more.end();) {
    const auto count = next++;
    const auto own = counts.find(count->first);
    if (own != counts.end()) {
      own->second += count->second;
      if (own->second == 0) counts.erase(own);
    } else if (count->second != 0) {
      counts.insert(more.extract(count));
    }
  }
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

void DeletedGroupsRecord::Change::Count(const std::string& key, const std::string& value, int more) {
  if (IsPattern(value)) {
    patterns += more;
    patternsByText[value] += more;
  }
  if (key != value) elsewhere[value] += more;
}

void DeletedGroupsRecord::Read(const IniFile& userSettings) {
  Change change;
  change.isCleared = true;
  for (const auto& [key, value] : MembersOf(userSettings)) change.Count(key, value, 1);
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
    if (before != record.end()) change.Count(key, before->second, -1);
    change.Count(key, value, 1);
  }
  const MergedMembers known(record, merged);
  for (const std::string& member : members) {
    if (known.HoldsUnderItsText(member) || IsElsewhere(change, member)) continue;
    Members& added = change.added[_group];
    std::string key = member;
    while (known.Find(key) || added.count(key) != 0) key += '~';
    change.Count(key, member, 1);
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
    _patternsByText.clear();
    _elsewhere.clear();
  }
  _patterns += change.patterns;
  AddCounts(_patternsByText, change.patternsByText);
  AddCounts(_elsewhere, change.elsewhere);
}

}  // namespace tavix::settings::server
