#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/common/PatternIndex.h"

namespace tavix::settings::common {

// A matcher that is asked about many names, or about a document in parts. It matches what the matcher matches that it
// is made from.
//
// Threads: any, at once; it does not change.
// Owns:    a copy of the matcher.
class TAVIX_DAEMON_EXPORT PreparedMatcher {
 public:
  explicit PreparedMatcher(const GroupNameMatcher& matcher);

  PreparedMatcher(const PreparedMatcher&) = delete;
  PreparedMatcher& operator=(const PreparedMatcher&) = delete;

  bool Matches(std::string_view name) const;

  // Where FindSome goes on. A new one begins at the document's first group.
  struct Position {
    bool isAtEnd = false;
    size_t range = 0;
    bool hasVisited = false;
    std::string visited;  // the last group of this range that was looked at
  };

  // Adds places of matching groups to "out", in ascending order and each once, and moves "position" behind the groups
  // that it looked at, which are no more than "maxVisited". Groups that cannot match are not looked at. The document
  // may change between two calls: groups that come to lie before the position are not found.
  void FindSome(const core::IniFile& ini, Position& position, size_t maxVisited,
                std::vector<core::IniFile::const_iterator>& out) const;

  const GroupNameMatcher& GetMatcher() const { return _matcher; }

 private:
  enum class Kind {
    kAllWithPrefix,   // every name that begins so matches
    kSomeWithPrefix,  // patterns decide
    kName,            // that name alone
  };

  struct Range {
    std::string begin;
    Kind kind;
  };

  void AddRange(Range range);

  const GroupNameMatcher _matcher;
  PatternIndex _index;         // of all names and patterns
  std::vector<Range> _ranges;  // ascending, none inside another: only what lies in one of them can match
};

}  // namespace tavix::settings::common
