#include "tavix/settings/server/RecordEdit.h"

#include <algorithm>

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/HiddenLayers.h"

namespace tavix::settings::server {

void RecordEdit::Replace(const Members& members) {
  for (const auto& entry : _members) {
    if (members.count(entry.first) == 0) Erase(entry.first);
  }
  for (const auto& [key, member] : members) Set(key, member);
}

void RecordEdit::Set(const std::string& key, const std::string& member) {
  const std::string* const before = Find(key);
  if (before && *before == member) return;
  if (before) Erase(key);
  _counts.Count(key, member, 1);
  _touched.insert(member);
  const std::string* const own = FindValue(&_members, key);
  _erased.erase(key);
  if (!own || *own != member) _set[key] = member;
  if (_keysElsewhere && key != member) (*_keysElsewhere)[member].insert(key);
}

void RecordEdit::Erase(const std::string& key) {
  const std::string* const before = Find(key);
  if (!before) return;
  _counts.Count(key, *before, -1);
  _touched.insert(*before);
  if (_keysElsewhere && key != *before) (*_keysElsewhere)[*before].erase(key);
  if (_members.count(key) != 0) _erased.insert(key);
  _set.erase(key);
}

void RecordEdit::EraseMember(const std::string& member) {
  const std::string* const own = Find(member);
  if (own && *own == member) Erase(member);
  if (!_record.IsElsewhere(_counts, member)) return;
  if (!_keysElsewhere) IndexKeys();
  const auto keys = _keysElsewhere->extract(member);
  if (keys.empty()) return;
  for (const std::string& key : keys.mapped()) Erase(key);
}

void RecordEdit::Add(const std::string& member) {
  if (Holds(member)) return;
  std::string key = member;
  while (Find(key)) key += '~';
  Set(key, member);
}

bool RecordEdit::Holds(const std::string& member) const {
  const std::string* const own = Find(member);
  return (own && *own == member) || _record.IsElsewhere(_counts, member);
}

bool RecordEdit::HeldBefore(const std::string& member) const {
  const std::string* const own = FindValue(&_members, member);
  return (own && *own == member) || _record.IsElsewhere({}, member);
}

common::GroupNameMatcher RecordEdit::FindPatterns() const {
  common::GroupNameMatcher patterns;
  for (const auto& [text, count] : _record.GetPatterns()) {
    const auto more = _counts.patternsByText.find(text);
    if (more == _counts.patternsByText.end() || count + more->second > 0) patterns.AddNameOrPattern(text);
  }
  for (const auto& [text, more] : _counts.patternsByText) {
    if (more > 0) patterns.AddNameOrPattern(text);
  }
  return patterns;
}

common::GroupNameMatcher RecordEdit::FindPatternsBefore() const {
  common::GroupNameMatcher patterns;
  for (const auto& pattern : _record.GetPatterns()) patterns.AddNameOrPattern(pattern.first);
  return patterns;
}

bool RecordEdit::OnlyAdds() const {
  return _erased.empty() && std::none_of(_set.begin(), _set.end(),
                                         [&](const auto& setting) { return _members.count(setting.first) != 0; });
}

const std::string* RecordEdit::Find(const std::string& key) const {
  const std::string* const set = FindValue(&_set, key);
  return set || _erased.count(key) != 0 ? set : FindValue(&_members, key);
}

void RecordEdit::IndexKeys() {
  _keysElsewhere.emplace();
  const Members* const both[] = {&_members, &_set};
  for (const Members* members : both) {
    for (const auto& setting : *members) {
      const std::string* const now = Find(setting.first);
      if (now && *now != setting.first) (*_keysElsewhere)[*now].insert(setting.first);
    }
  }
}

}  // namespace tavix::settings::server
