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
  // By how much the counts of texts change.
  using Counts = std::map<std::string, std::ptrdiff_t>;

  // What a change of the user settings does to the record.
  struct Change {
    core::IniFile added;          // the members that are new, as they will stand in the record
    std::ptrdiff_t patterns = 0;  // how many more patterns there will be
    Counts patternsByText;        // how many more of each
    Counts elsewhere;             // how many more members under other keys than their own text
    bool isCleared = false;       // what was there is gone before

    // Counts a member that comes or, with -1, goes.
    void Count(const std::string& key, const std::string& value, int more);
  };

  // group: the name of the record.
  explicit DeletedGroupsRecord(std::string group) : _group(std::move(group)) {}

  const std::string& GetGroup() const { return _group; }

  // Forgets everything and walks through the record of "userSettings". Throws std::bad_alloc, and has forgotten
  // nothing.
  void Read(const core::IniFile& userSettings);

  // What becomes of the record when the user settings lose it (isRemoved), "settings" are merged into them, and those
  // of "members" are added that it does not hold then. Costs what the latter two are long. Throws std::bad_alloc.
  Change Plan(const core::IniFile& userSettings, bool isRemoved, const core::IniFile& settings,
              const std::set<std::string>& members) const;

  // The user settings are changed so, too.
  void CarryOut(Change& change) noexcept;

  // How many patterns are recorded, and how often each of them.
  size_t CountPatterns() const { return static_cast<size_t>(_patterns); }
  const Counts& GetPatterns() const { return _patternsByText; }

  // Whether the member stands under another key than its own text, once the change is made.
  bool IsElsewhere(const Change& change, const std::string& member) const;

  // The record in a document; empty when it has none.
  using Members = core::IniFile::KeyMap;
  const Members& MembersOf(const core::IniFile& settings) const;

  static bool IsPattern(const std::string& member) { return member.find('*') != std::string::npos; }

 private:
  const std::string _group;
  std::ptrdiff_t _patterns = 0;
  Counts _patternsByText;
  Counts _elsewhere;  // members that stand under other keys than their own text, and how often
};

}  // namespace tavix::settings::server
