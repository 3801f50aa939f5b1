#include "tavix/settings/server/GroupWalk.h"

#include <algorithm>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::server {

using core::IniFile;
using core::StringUtil;

namespace {

bool MatchesAny(const std::vector<const std::string*>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string* pattern) { return StringUtil::MatchesPattern(*pattern, name); });
}

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
    if (_ranges.empty() || !StringUtil::StartsWith(prefix, _ranges.back().prefix)) _ranges.push_back({prefix, {}});
    _ranges.back().patterns.push_back(pattern);
  }
}

bool GroupWalk::Matches(const std::string& name) const {
  if (MatchesName(name)) return true;
  const Range* range = FindRange(name);
  return range && MatchesAny(range->patterns, name);
}

IniFile::const_iterator GroupWalk::FindNext(const IniFile& document, IniFile::const_iterator at,
                                            IniFile::const_iterator end, Work& work) const {
  std::string buffer;
  while (at != end && work > 0) {
    const std::string& name = at->first;
    const Range* range = FindRange(name);
    if (MatchesName(name) || (range && MatchesAny(range->patterns, name))) return at;
    Take(work, 1 + (range ? CostOfTrying(range->patterns.size(), name) : 0));
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
