#pragma once

#include <set>
#include <string>

#include "programs/common/client/Session.h"

// What is reported when the store does not hold what was asked for. The answer is no anyway, and a look at names that
// begin alike costs little: somebody who mistyped one is told which he may have meant.
namespace tavix::programs::cli {

// The names and patterns that no group has matched yet. A plain value.
class MissingGroups {
 public:
  explicit MissingGroups(const std::set<std::string>& namesAndPatterns) : _missing(namesAndPatterns) {}

  // A group that the store holds.
  void Take(const std::string& group);
  void TakeAll(const core::IniFile& settings);

  const std::set<std::string>& Get() const { return _missing; }

 private:
  std::set<std::string> _missing;
};

// No group has this name, or matches this pattern.
std::string DescribeMissingGroup(Session& session, const std::string& group);

// A setting is not there.
std::string DescribeMissingSetting(Session& session, const std::string& group, const std::string& key);

// The one group that has such a key and that clients can write. Empty when there is none or several, and when a
// daemon's store holds more than 10,000 settings or does not report how many: all groups are looked through.
std::string FindGroupOfKey(Session& session, const std::string& key, bool isFile);

}  // namespace tavix::programs::cli
