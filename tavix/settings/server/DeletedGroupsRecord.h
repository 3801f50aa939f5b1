#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// Knows what is in the store's record of deleted groups without walking through it. The record is a group of the user
// layer whose values are its members: names and patterns. A member stands under its own text as key, where that is
// free; those under other keys, of files that were edited by hand for instance, are counted here.
//
// Threads: as a container.
class DeletedGroupsRecord {
 public:
  // group: the name of the record.
  explicit DeletedGroupsRecord(std::string group) : _group(std::move(group)) {}

  const std::string& GetGroup() const { return _group; }

  // Forgets everything and walks through the record of "userSettings".
  void Read(const core::IniFile& userSettings);

  // "settings" are merged into "userSettings" next.
  void OnMerge(const core::IniFile& userSettings, const core::IniFile& settings);

  // Records the members that are new, and returns them as they stand in the record. Costs what "members" are long.
  core::IniFile Add(core::IniFile& userSettings, const std::set<std::string>& members);

  // How many patterns are recorded, and how many more there would be at most after Add, or after a merge.
  size_t CountPatterns() const { return _patterns; }
  size_t CountNewPatterns(const core::IniFile& userSettings, const std::set<std::string>& members) const;
  size_t CountNewPatterns(const core::IniFile& userSettings, const core::IniFile& settings) const;

  // How many bytes Add would make of the record, as the store's account counts them.
  size_t CountNewBytes(const core::IniFile& userSettings, const std::set<std::string>& members) const;

 private:
  using Members = core::IniFile::KeyMap;

  const Members& MembersOf(const core::IniFile& settings) const;
  bool IsMember(const Members& members, const std::string& value) const;
  void Note(const std::string& key, const std::string& value);
  void Forget(const std::string& key, const std::string& value);

  const std::string _group;
  size_t _patterns = 0;
  std::map<std::string, size_t> _elsewhere;  // members that stand under other keys than their own text, and how often
};

}  // namespace tavix::settings::server
