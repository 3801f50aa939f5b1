#include "tavix/settings/common/GroupNameMatcher.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <string_view>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::common {

using core::IniFile;
using core::StringUtil;

namespace {

const std::string& NameAt(std::set<std::string>::const_iterator at) {
  return *at;
}
const std::string& NameAt(IniFile::const_iterator at) {
  return at->first;
}

// Names are looked up one by one while that takes fewer steps than walking all candidates beside them.
template <class Candidates>
bool AreFew(const std::set<std::string>& names, const Candidates& candidates) {
  constexpr size_t kStepsOfLookup = 16;
  return names.size() * kStepsOfLookup < candidates.size();
}

template <class Candidates, class Found>
void FindNames(const std::set<std::string>& names, const Candidates& candidates, Found found) {
  if (AreFew(names, candidates)) {
    for (const std::string& name : names) {
      const auto at = candidates.find(name);
      if (at != candidates.end()) found(at);
    }
    return;
  }
  auto name = names.begin();
  auto at = candidates.begin();
  while (name != names.end() && at != candidates.end()) {
    const int order = NameAt(at).compare(*name);
    if (order == 0) found(at);
    if (order <= 0) ++at;
    if (order >= 0) ++name;
  }
}

std::string_view LiteralOf(const std::string& pattern) {
  return std::string_view(pattern).substr(0, pattern.find('*'));
}

using PatternAt = std::set<std::string>::const_iterator;

// Patterns with the same text before their first '*'; they lie together.
struct SimilarPatterns {
  PatternAt begin;
  PatternAt end;
  std::string_view literal;

  bool MatchAny(std::string_view rest) const {
    return std::any_of(begin, end, [&](const std::string& pattern) {
      return StringUtil::MatchesPattern(std::string_view(pattern).substr(literal.size()), rest);
    });
  }
};

SimilarPatterns FindSimilar(PatternAt begin, PatternAt end) {
  const std::string_view literal = LiteralOf(*begin);
  const auto isOther = [&](const std::string& pattern) { return LiteralOf(pattern) != literal; };
  return {begin, std::find_if(std::next(begin), end, isOther), literal};
}

// Every byte before the first '*' stands for itself, so only the sorted range with that prefix can match. It is walked
// once for all patterns that have it: to come from one candidate to the next takes longer than most tries.
template <class Candidates, class Found>
void FindPatterns(const SimilarPatterns& patterns, const Candidates& candidates, Found found) {
  if (candidates.size() == 1 && !StringUtil::StartsWith(NameAt(candidates.begin()), patterns.literal)) return;
  for (auto at = candidates.lower_bound(std::string(patterns.literal)); at != candidates.end(); ++at) {
    const std::string_view name = NameAt(at);
    if (!StringUtil::StartsWith(name, patterns.literal)) return;
    if (patterns.MatchAny(name.substr(patterns.literal.size()))) found(at);
  }
}

void SortAndUnite(std::vector<IniFile::const_iterator>& groups) {
  std::sort(groups.begin(), groups.end(), [](auto a, auto b) { return a->first < b->first; });
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
}

template <class Candidates>
void AddMatches(const GroupNameMatcher& matcher, const Candidates& candidates, std::set<std::string>& out) {
  auto hint = out.begin();
  const auto add = [&](auto at) { hint = out.insert(hint, NameAt(at)); };
  FindNames(matcher.GetNames(), candidates, add);
  const std::set<std::string>& patterns = matcher.GetPatterns();
  for (auto at = patterns.begin(); at != patterns.end();) {
    const SimilarPatterns similar = FindSimilar(at, patterns.end());
    FindPatterns(similar, candidates, add);
    at = similar.end;
  }
}

}  // namespace

void GroupNameMatcher::AddNameOrPattern(const std::string& s) {
  (s.find('*') == std::string::npos ? _names : _patterns).insert(s);
}

void GroupNameMatcher::AddNamesAndPatterns(const std::set<std::string>& in) {
  auto nameHint = _names.end();
  auto patternHint = _patterns.end();
  for (const std::string& s : in) {
    if (s.find('*') == std::string::npos) {
      nameHint = std::next(_names.insert(nameHint, s));
    } else {
      patternHint = std::next(_patterns.insert(patternHint, s));
    }
  }
}

void GroupNameMatcher::Merge(const GroupNameMatcher& other) {
  if (this == &other) return;
  _names.insert(other._names.begin(), other._names.end());
  _patterns.insert(other._patterns.begin(), other._patterns.end());
}

void GroupNameMatcher::GetMatchingGroups(const std::set<std::string>& candidates, std::set<std::string>& out) const {
  AddMatches(*this, candidates, out);
}

void GroupNameMatcher::GetMatchingGroups(const IniFile& ini, std::set<std::string>& out) const {
  AddMatches(*this, ini.GetGroups(), out);
}

void GroupNameMatcher::GetMatchingGroups(const IniFile& ini, std::vector<IniFile::const_iterator>& out) const {
  out.clear();
  const auto add = [&](IniFile::const_iterator at) { out.push_back(at); };
  FindNames(_names, ini.GetGroups(), add);
  const bool ascending = _patterns.empty() || (_names.empty() && _patterns.size() == 1);
  for (auto at = _patterns.begin(); at != _patterns.end();) {
    const SimilarPatterns similar = FindSimilar(at, _patterns.end());
    FindPatterns(similar, ini.GetGroups(), add);
    if (out.size() > 2 * ini.GetGroups().size()) SortAndUnite(out);  // many patterns may find the same groups
    at = similar.end;
  }
  if (!ascending) SortAndUnite(out);
}

void GroupNameMatcher::SerializeIni(std::ostream& os, const IniFile& ini) const {
  auto name = _names.begin();
  for (auto group = ini.begin(); group != ini.end(); ++group) {
    int order = -1;
    // A name that is greater than this group is passed, too, and never compared again: kept that way on purpose.
    while (order < 0 && name != _names.end()) order = (name++)->compare(group->first);
    if (order == 0 || MatchesAnyPattern(group->first)) IniFile::SaveGroupToStream(os, group);
  }
}

bool GroupNameMatcher::MatchesAnyPattern(const std::string& group) const {
  return std::any_of(_patterns.begin(), _patterns.end(),
                     [&](const std::string& pattern) { return StringUtil::MatchesPattern(pattern, group); });
}

}  // namespace tavix::settings::common
