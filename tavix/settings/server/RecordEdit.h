#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/DeletedGroupsRecord.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// A change of the record of deleted groups key by key, for amendments: members also leave it. Costs what the change is
// long, and one walk through the record where a member is erased that stands under another key than its own text.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
class RecordEdit {
 public:
  using Members = DeletedGroupsRecord::Members;

  // Both outlive the object and do not change. members: those of the record.
  RecordEdit(const DeletedGroupsRecord& record, const Members& members) : _record(record), _members(members) {}

  RecordEdit(const RecordEdit&) = delete;
  RecordEdit& operator=(const RecordEdit&) = delete;

  // Makes the members exactly these.
  void Replace(const Members& members);

  void Set(const std::string& key, const std::string& member);
  void Erase(const std::string& key);

  // Under whatever keys it stands.
  void EraseMember(const std::string& member);

  // Unless it is there.
  void Add(const std::string& member);

  // Whether the record has the member, and its patterns, once all of this is done.
  bool Holds(const std::string& member) const;
  common::GroupNameMatcher FindPatterns() const;

  // The same before.
  bool HeldBefore(const std::string& member) const;
  common::GroupNameMatcher FindPatternsBefore() const;

  // What is done: keys that leave the record, and those that come or get another member.
  const std::set<std::string>& GetErased() const { return _erased; }
  const Members& GetSet() const { return _set; }

  // The members that may have come or gone.
  const std::set<std::string>& GetTouched() const { return _touched; }

  // Whether nothing leaves, and nothing is replaced.
  bool OnlyAdds() const;

  bool IsEmptied() const { return !_members.empty() && _erased.size() == _members.size() && _set.empty(); }

  // Its counts, for the record. What was added is not in it.
  DeletedGroupsRecord::Change& GetCounts() { return _counts; }
  const DeletedGroupsRecord::Change& GetCounts() const { return _counts; }

 private:
  const std::string* Find(const std::string& key) const;
  void IndexKeys();

  const DeletedGroupsRecord& _record;
  const Members& _members;
  std::set<std::string> _erased;
  Members _set;
  std::set<std::string> _touched;
  DeletedGroupsRecord::Change _counts;

  // Of each member its keys other than its own text; kept from the first EraseMember on that looks for such keys.
  std::optional<std::map<std::string, std::set<std::string>>> _keysElsewhere;
};

}  // namespace tavix::settings::server
