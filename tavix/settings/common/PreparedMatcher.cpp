#include "tavix/settings/common/PreparedMatcher.h"

#include <algorithm>
#include <utility>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::common {

using core::IniFile;
using core::StringUtil;

PreparedMatcher::PreparedMatcher(const GroupNameMatcher& matcher) : _matcher(matcher) {
  std::vector<Range> ranges;
  for (const std::string& name : matcher.GetNames()) ranges.push_back({name, false});
  for (const std::string& pattern : matcher.GetPatterns())
    ranges.push_back({pattern.substr(0, pattern.find('*')), true});
  // A prefix goes before the name that equals it, so that it covers it.
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    const int order = a.begin.compare(b.begin);
    return order != 0 ? order < 0 : a.isPrefix && !b.isPrefix;
  });
  for (Range& range : ranges) AddRange(std::move(range));
}

void PreparedMatcher::AddRange(Range range) {
  const bool isCovered =
      !_ranges.empty() && _ranges.back().isPrefix && StringUtil::StartsWith(range.begin, _ranges.back().begin);
  if (!isCovered) _ranges.push_back(std::move(range));
}

bool PreparedMatcher::Matches(std::string_view name) const {
  const auto matches = [name](const std::string& wanted) { return StringUtil::MatchesPattern(wanted, name); };
  const auto& names = _matcher.GetNames();
  const auto& patterns = _matcher.GetPatterns();
  return std::any_of(names.begin(), names.end(), matches) || std::any_of(patterns.begin(), patterns.end(), matches);
}

void PreparedMatcher::FindSome(const IniFile& ini, Position& position, size_t maxVisited,
                               std::vector<IniFile::const_iterator>& out) const {
  const IniFile::GroupMap& groups = ini.GetGroups();
  for (; position.range < _ranges.size(); ++position.range, position.hasVisited = false) {
    const Range& range = _ranges[position.range];
    auto group = position.hasVisited ? groups.upper_bound(position.visited) : groups.lower_bound(range.begin);
    for (; group != groups.end(); ++group) {
      if (range.isPrefix ? !StringUtil::StartsWith(group->first, range.begin) : group->first != range.begin) break;
      if (maxVisited == 0) return;
      --maxVisited;
      if (!range.isPrefix || Matches(group->first)) out.push_back(group);
      position.visited = group->first;
      position.hasVisited = true;
    }
  }
  position.isAtEnd = true;
}

}  // namespace tavix::settings::common
