#include "tavix/settings/server/GroupWalk.h"

#include <algorithm>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::server {

using core::IniFile;
using core::StringUtil;

namespace {

constexpr size_t kManyPatterns = 16;  // for which an index finds those to try sooner

// To try a pattern takes a part of the time that it takes to come to the next group.
GroupWalk::Work CostOfTrying(size_t patterns, const std::string& name) {
  return patterns * (64 + name.size()) / 1024;
}

void Take(GroupWalk::Work& work, GroupWalk::Work cost) {
  work -= std::min(work, cost);
}

}  // namespace

// The patterns are in ascending order, and so are their prefixes, but for what the '*' sorts differently.
GroupWalk::GroupWalk(const common::GroupNameMatcher& matcher) : _matcher(matcher) {
  std::vector<std::pair<std::string_view, const std::string*>> sorted;
  for (const std::string& pattern : matcher.GetPatterns())
    sorted.emplace_back(std::string_view(pattern).substr(0, pattern.find('*')), &pattern);
  std::sort(sorted.begin(), sorted.end());
  for (const auto& [prefix, pattern] : sorted) {
    if (_ranges.empty() || !StringUtil::StartsWith(prefix, _ranges.back().prefix))
      _ranges.push_back({prefix, {}, nullptr});
    _ranges.back().patterns.push_back(pattern);
  }
  for (Range& range : _ranges) {
    if (range.patterns.size() < kManyPatterns) continue;
    range.index = std::make_unique<common::PatternIndex>();
    for (const std::string* pattern : range.patterns) range.index->Add(*pattern);
  }
}

bool GroupWalk::MatchesAny(const Range& range, const std::string& name, Search& search) {
  if (range.index) return range.index->HasMatching(name, search);
  return std::any_of(range.patterns.begin(), range.patterns.end(),
                     [&](const std::string* pattern) { return StringUtil::MatchesPattern(*pattern, name); });
}

bool GroupWalk::Matches(const std::string& name) const {
  if (MatchesName(name)) return true;
  const Range* range = FindRange(name);
  Search search;
  return range && MatchesAny(*range, name, search);
}

IniFile::const_iterator GroupWalk::FindNext(const IniFile& document, IniFile::const_iterator at,
                                            IniFile::const_iterator end, Work& work) const {
  std::string buffer;
  Search search;
  while (at != end && work > 0) {
    const std::string& name = at->first;
    const Range* range = FindRange(name);
    const size_t tried = search.GetTried();
    if (MatchesName(name) || (range && MatchesAny(*range, name, search))) return at;
    const size_t count = !range ? 0 : range->index ? search.GetTried() - tried : range->patterns.size();
    Take(work, 1 + CostOfTrying(count, name));
    if (range) {
      ++at;
      continue;
    }
    const std::string* bound = FindBoundAfter(name, buffer);
    if (!bound) return end;
    at = document.GetGroups().lower_bound(*bound);
    if (end != document.end() && (at == document.end() || !(at->first < end->first))) return end;
  }
  return at;
}

const GroupWalk::Range* GroupWalk::FindRange(const std::string& name) const {
  const auto isBefore = [](const std::string& text, const Range& range) { return text < range.prefix; };
  const auto next = std::upper_bound(_ranges.begin(), _ranges.end(), name, isBefore);
  if (next == _ranges.begin()) return nullptr;
  const Range& range = *std::prev(next);
  return StringUtil::StartsWith(name, range.prefix) ? &range : nullptr;
}

// The least name behind a name that is in no range from which on a group may match; null: there is none.
const std::string* GroupWalk::FindBoundAfter(const std::string& name, std::string& buffer) const {
  const auto next = _matcher.GetNames().upper_bound(name);
  const auto isBefore = [](const std::string& text, const Range& range) { return text < range.prefix; };
  const auto range = std::upper_bound(_ranges.begin(), _ranges.end(), name, isBefore);
  const bool hasName = next != _matcher.GetNames().end();
  if (range == _ranges.end()) return hasName ? &*next : nullptr;
  if (hasName && *next < range->prefix) return &*next;
  buffer = range->prefix;
  return &buffer;
}

}  // namespace tavix::settings::server
