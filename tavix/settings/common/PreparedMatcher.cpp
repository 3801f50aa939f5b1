#include "tavix/settings/common/PreparedMatcher.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::common {

using core::IniFile;
using core::StringUtil;

PreparedMatcher::PreparedMatcher(const GroupNameMatcher& matcher) : _matcher(matcher) {
  std::vector<Range> ranges;
  for (const std::string& name : matcher.GetNames()) {
    _index.Add(name);
    ranges.push_back({name, Kind::kName});
  }
  for (const std::string& pattern : matcher.GetPatterns()) {
    _index.Add(pattern);
    const size_t star = pattern.find('*');
    const bool isAll = pattern.find_first_not_of('*', star) == std::string::npos;
    ranges.push_back({pattern.substr(0, star), isAll ? Kind::kAllWithPrefix : Kind::kSomeWithPrefix});
  }
  std::sort(ranges.begin(), ranges.end(),
            [](const Range& a, const Range& b) { return std::tie(a.begin, a.kind) < std::tie(b.begin, b.kind); });
  for (Range& range : ranges) AddRange(std::move(range));
}

void PreparedMatcher::AddRange(Range range) {
  const bool isCovered = !_ranges.empty() && _ranges.back().kind != Kind::kName &&
                         StringUtil::StartsWith(range.begin, _ranges.back().begin);
  if (!isCovered) _ranges.push_back(std::move(range));
}

bool PreparedMatcher::Matches(std::string_view name) const {
  PatternIndex::Search search;
  return _index.HasMatching(name, search);
}

void PreparedMatcher::FindSome(const IniFile& ini, Position& position, size_t maxVisited,
                               std::vector<IniFile::const_iterator>& out) const {
  const IniFile::GroupMap& groups = ini.GetGroups();
  PatternIndex::Search search;
  for (; position.range < _ranges.size(); ++position.range, position.hasVisited = false) {
    const Range& range = _ranges[position.range];
    auto group = position.hasVisited ? groups.upper_bound(position.visited) : groups.lower_bound(range.begin);
    for (; group != groups.end(); ++group) {
      const bool isName = range.kind == Kind::kName;
      if (isName ? group->first != range.begin : !StringUtil::StartsWith(group->first, range.begin)) break;
      if (maxVisited == 0) return;
      --maxVisited;
      if (range.kind != Kind::kSomeWithPrefix || _index.HasMatching(group->first, search)) out.push_back(group);
      position.visited = group->first;
      position.hasVisited = true;
    }
  }
  position.isAtEnd = true;
}

}  // namespace tavix::settings::common
