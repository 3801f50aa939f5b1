// Finding the names that somebody means among many.

#include <fnmatch.h>

#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench/Addresses.h"
#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/SampleSettings.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::bench {

namespace {

using core::IniFile;
using core::StringUtil;
using settings::common::GroupNameMatcher;

constexpr int kManyGroups = 100000;
constexpr char kInDocument[] = "places in a document";
constexpr char kInSet[] = "names of a set";
constexpr char kEveryPair[] = "every pattern on every name";

std::set<std::string> Names(int count) {
  std::set<std::string> names;
  for (int i = 0; i < count; ++i) names.insert(names.end(), GroupName(i));
  return names;
}

GroupNameMatcher MatcherFor(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

// Hands out the next of some texts, over and over.
class Cycle {
 public:
  explicit Cycle(std::vector<std::string> texts) : _texts(std::move(texts)) {}
  const std::string& GetNext() { return _texts[_next++ % _texts.size()]; }

 private:
  const std::vector<std::string> _texts;
  size_t _next = 0;
};

// The names' beginnings that leave 100 names each.
std::vector<std::string> PrefixesOfHundred() {
  std::vector<std::string> prefixes;
  for (const Address& address : ShuffledAddresses(kManyGroups, 1))
    prefixes.push_back(address.group.substr(0, address.group.size() - 2));
  return prefixes;
}

std::vector<std::string> AnyNames() {
  std::vector<std::string> names;
  for (const Address& address : ShuffledAddresses(kManyGroups, 1)) names.push_back(address.group);
  return names;
}

void Expect(size_t found, size_t expected) {
  if (found != expected) throw osa::Exception("%zu names found instead of %zu", found, expected);
}

// What a search among many groups is measured with: the same names three times.
struct ManyGroups {
  const std::set<std::string> names = Names(kManyGroups);
  const IniFile document = SettingsDocument(kManyGroups, 1);
};

size_t FindInDocument(const ManyGroups& groups, const std::string& nameOrPattern) {
  std::vector<IniFile::const_iterator> found;
  MatcherFor(nameOrPattern).GetMatchingGroups(groups.document, found);
  return found.size();
}

size_t FindInSet(const ManyGroups& groups, const std::string& nameOrPattern) {
  std::set<std::string> found;
  MatcherFor(nameOrPattern).GetMatchingGroups(groups.names, found);
  return found.size();
}

void MeasurePattern(Recorder& recorder, const std::string& item) {
  const ManyGroups groups;
  Cycle prefixes(PrefixesOfHundred());
  const auto measure = [&](const char* peer, const char* variant, auto find) {
    MeasureCall(recorder, {item, peer, variant}, kMicroseconds, 1, [&] { Expect(find(prefixes.GetNext()), 100); });
  };
  const auto walk = [&](const std::string& prefix, auto matches) {
    size_t found = 0;
    auto name = groups.names.lower_bound(prefix);
    for (; name != groups.names.end() && StringUtil::StartsWith(*name, prefix); ++name) found += matches(*name);
    return found;
  };
  measure(kFloor, "prefix range on a sorted set",
          [&](const std::string& prefix) { return walk(prefix, [](const std::string&) { return true; }); });
  measure(kOurs, kInDocument, [&](const std::string& prefix) { return FindInDocument(groups, prefix + "*"); });
  measure(kOurs, kInSet, [&](const std::string& prefix) { return FindInSet(groups, prefix + "*"); });
  measure("fnmatch", "prefix range, fnmatch on each", [&](const std::string& prefix) {
    const std::string pattern = prefix + "*";
    return walk(prefix, [&](const std::string& name) { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; });
  });
}

void MeasureName(Recorder& recorder, const std::string& item) {
  const ManyGroups groups;
  Cycle names(AnyNames());
  const auto measure = [&](const char* peer, const char* variant, auto find) {
    MeasureCall(recorder, {item, peer, variant}, kMicroseconds, 1, [&] { Expect(find(names.GetNext()), 1); });
  };
  measure(kFloor, "find in a sorted set", [&](const std::string& name) { return groups.names.count(name); });
  measure(kOurs, kInDocument, [&](const std::string& name) { return FindInDocument(groups, name); });
  measure(kOurs, kInSet, [&](const std::string& name) { return FindInSet(groups, name); });
}

// Each takes 100 names of 10,000.
std::set<std::string> HundredPatterns() {
  std::set<std::string> patterns;
  for (int i = 0; i < 100; ++i) {
    char pattern[40];
    std::snprintf(pattern, sizeof pattern, "Net/*G%05d*", i);
    patterns.insert(pattern);
  }
  return patterns;
}

void MeasureManyPatterns(Recorder& recorder, const std::string& item) {
  const std::set<std::string> names = Names(10000);
  const std::set<std::string> patterns = HundredPatterns();
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(patterns);
  const auto measure = [&](const char* peer, const char* variant, auto find) {
    MeasureCall(recorder, {item, peer, variant}, kMicroseconds, 1, [&] {
      std::set<std::string> found;
      find(found);
      Expect(found.size(), 10000);
    });
  };
  measure(kOurs, kInSet, [&](std::set<std::string>& found) { matcher.GetMatchingGroups(names, found); });
  measure("fnmatch", "fnmatch on every pair", [&](std::set<std::string>& found) {
    for (const std::string& pattern : patterns) {
      for (const std::string& name : names) {
        if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) found.insert(found.end(), name);
      }
    }
  });
}

// What a client may subscribe to at most, on a change of many groups: texts that stand in names, all of them different.
void MeasureMaxPatterns(Recorder& recorder, const std::string& item) {
  constexpr int kPatterns = 4096;
  std::set<std::string> patterns;
  for (int i = 0; i < kPatterns; ++i) patterns.insert("*" + GroupName(4 * i).substr(4) + "*");
  const std::set<std::string> names = Names(20000);
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(patterns);
  MeasureCall(recorder, {item, kOurs, kInSet}, kMilliseconds, 1, [&] {
    std::set<std::string> found;
    matcher.GetMatchingGroups(names, found);
    Expect(found.size(), kPatterns);
  });
  MeasureCall(recorder, {item, kFloor, kEveryPair}, kMilliseconds, 1, [&] {
    size_t found = 0;
    for (const std::string& name : names) {
      for (const std::string& pattern : patterns) found += StringUtil::MatchesPattern(pattern, name);
    }
    Expect(found, kPatterns);
  });
}

}  // namespace

void AddMatchBenches(Suite& suite) {
  const std::string pattern = "match-100k";
  suite.Add({pattern}, [=](Recorder& recorder) { MeasurePattern(recorder, pattern); });
  const std::string name = "match-name-100k";
  suite.Add({name}, [=](Recorder& recorder) { MeasureName(recorder, name); });
  for (const char* variant : {kInDocument, kInSet}) {
    suite.Compare({pattern, kOurs, variant}, {pattern, kFloor, "prefix range on a sorted set"});
    suite.Compare({pattern, kOurs, variant}, {pattern, "fnmatch", "prefix range, fnmatch on each"});
    suite.Compare({name, kOurs, variant}, {name, kFloor, "find in a sorted set"});
  }
  const std::string many = "match-10k-by-100";
  suite.Add({many}, [=](Recorder& recorder) { MeasureManyPatterns(recorder, many); });
  suite.Compare({many, kOurs, kInSet}, {many, "fnmatch", "fnmatch on every pair"});
  const std::string max = "match-20k-by-4096";
  suite.Add({max}, [=](Recorder& recorder) { MeasureMaxPatterns(recorder, max); });
  suite.Compare({max, kOurs, kInSet}, {max, kFloor, kEveryPair});
}

}  // namespace tavix::bench
