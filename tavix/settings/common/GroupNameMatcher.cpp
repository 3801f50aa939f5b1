#include "tavix/settings/common/GroupNameMatcher.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <string_view>

#include "tavix/core/StringUtil.h"
#include "tavix/settings/common/PatternIndex.h"

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

thread_local unsigned long long triedPatterns = 0;

using PatternAt = std::set<std::string>::const_iterator;

// Patterns with the same text before their first '*'; they lie together.
struct SimilarPatterns {
  PatternAt begin;
  PatternAt end;
  std::string_view literal;

  bool MatchAny(std::string_view rest) const {
    return std::any_of(begin, end, [&](const std::string& pattern) {
      ++triedPatterns;
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

// From so many patterns on, on so many candidates, it pays to make an index of the patterns.
constexpr size_t kManyPatterns = 16;
constexpr size_t kManyCandidates = 64;

std::vector<PatternAt> SortByLiteral(const std::set<std::string>& patterns) {
  std::vector<PatternAt> sorted;
  sorted.reserve(patterns.size());
  for (auto at = patterns.begin(); at != patterns.end(); ++at) sorted.push_back(at);
  const auto isBefore = [](PatternAt a, PatternAt b) {
    const int order = LiteralOf(*a).compare(LiteralOf(*b));
    return order != 0 ? order < 0 : *a < *b;
  };
  std::sort(sorted.begin(), sorted.end(), isBefore);
  return sorted;
}

// Walks the range of the shortest literal, with which all others begin, once for all patterns.
template <class At, class Candidates, class Found>
void FindByIndex(At begin, At end, const Candidates& candidates, Found found) {
  PatternIndex index;
  for (At pattern = begin; pattern != end; ++pattern) index.Add(**pattern);
  PatternIndex::Search search;
  const std::string_view literal = LiteralOf(**begin);
  for (auto at = candidates.lower_bound(std::string(literal)); at != candidates.end(); ++at) {
    if (!StringUtil::StartsWith(NameAt(at), literal)) break;
    if (index.HasMatching(NameAt(at), search)) found(at);
  }
  triedPatterns += search.GetTried();
}

// "proceed" is called from time to time, when candidates may have been found several times.
template <class Candidates, class Found, class Proceed>
void FindEachPattern(const std::set<std::string>& patterns, const Candidates& candidates, Found found,
                     Proceed proceed) {
  for (auto at = patterns.begin(); at != patterns.end();) {
    const SimilarPatterns similar = FindSimilar(at, patterns.end());
    FindPatterns(similar, candidates, found);
    proceed();
    at = similar.end;
  }
}

// As FindEachPattern; but where many patterns want the same range of candidates, that is walked once for all of them.
template <class Candidates, class Found, class Proceed>
void FindManyPatterns(const std::set<std::string>& patterns, const Candidates& candidates, Found found,
                      Proceed proceed) {
  const std::vector<PatternAt> sorted = SortByLiteral(patterns);
  for (auto at = sorted.begin(); at != sorted.end();) {
    const std::string_view shortest = LiteralOf(**at);
    const auto isElsewhere = [&](PatternAt other) { return !StringUtil::StartsWith(LiteralOf(*other), shortest); };
    const auto end = std::find_if(at, sorted.end(), isElsewhere);
    if (static_cast<size_t>(end - at) >= kManyPatterns) {
      FindByIndex(at, end, candidates, found);
    } else {
      for (auto pattern = at; pattern != end;) {
        const SimilarPatterns similar = FindSimilar(*pattern, patterns.end());
        FindPatterns(similar, candidates, found);
        pattern += std::distance(similar.begin, similar.end);
      }
    }
    proceed();
    at = end;
  }
}

template <class Candidates, class Found, class Proceed>
void FindAllPatterns(const std::set<std::string>& patterns, const Candidates& candidates, Found found,
                     Proceed proceed) {
  if (patterns.size() < kManyPatterns || candidates.size() < kManyCandidates)
    return FindEachPattern(patterns, candidates, found, proceed);
  FindManyPatterns(patterns, candidates, found, proceed);
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
  FindAllPatterns(matcher.GetPatterns(), candidates, add, [] {});
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
  const auto unite = [&] {
    if (out.size() > 2 * ini.GetGroups().size()) SortAndUnite(out);
  };
  FindAllPatterns(_patterns, ini.GetGroups(), add, unite);
  if (!ascending) SortAndUnite(out);
}

unsigned long long GroupNameMatcher::CountTriedPatterns() {
  return triedPatterns;
}

void GroupNameMatcher::SerializeIni(std::ostream& os, const IniFile& ini) const {
  PatternIndex patterns;
  for (const std::string& pattern : _patterns) patterns.Add(pattern);
  PatternIndex::Search search;
  auto name = _names.begin();
  for (auto group = ini.begin(); group != ini.end(); ++group) {
    int order = -1;
    // A name that is greater than this group is passed, too, and never compared again: kept that way on purpose.
    while (order < 0 && name != _names.end()) order = (name++)->compare(group->first);
    if (order == 0 || patterns.HasMatching(group->first, search)) IniFile::SaveGroupToStream(os, group);
  }
  triedPatterns += search.GetTried();
}

}  // namespace tavix::settings::common
