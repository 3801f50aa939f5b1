#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/common/PatternIndex.h"

namespace tavix::settings::server {

// Finds the groups that a matcher means one after the other, in ascending order, so that a walk over a large document
// can be left and taken up again. Finds what GroupNameMatcher::GetMatchingGroups finds.
//
// Cost: names and what stands before a pattern's first '*' are looked up; only groups that share that are visited.
// Threads: any number at once.
class GroupWalk {
 public:
  // The unit of work: about a group that is visited without many patterns to try on it.
  using Work = size_t;

  // matcher: outlives the object, and does not change.
  explicit GroupWalk(const common::GroupNameMatcher& matcher);

  bool Matches(const std::string& name) const;

  // The first matching group from "at" on, or "end". Takes what it cost from "work"; when that is used up, returns the
  // group from which to go on, and "work" is 0.
  core::IniFile::const_iterator FindNext(const core::IniFile& document, core::IniFile::const_iterator at,
                                         core::IniFile::const_iterator end, Work& work) const;

 private:
  // Patterns whose text before the first '*' begins with "prefix".
  struct Range {
    std::string_view prefix;
    std::vector<const std::string*> patterns;
    std::unique_ptr<common::PatternIndex> index;  // of many patterns; null for few
  };

  using Search = common::PatternIndex::Search;

  static bool MatchesAny(const Range& range, const std::string& name, Search& search);

  const Range* FindRange(const std::string& name) const;
  const std::string* FindBoundAfter(const std::string& name, std::string& buffer) const;
  bool MatchesName(const std::string& name) const { return _matcher.GetNames().count(name) != 0; }

  const common::GroupNameMatcher& _matcher;
  std::vector<Range> _ranges;  // ascending; none is a prefix of another
};

}  // namespace tavix::settings::server
