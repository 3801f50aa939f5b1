#include "tavix/settings/server/GroupWalk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <string>
#include <vector>

#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::GroupWalk;
using tavix::test::RandomDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr GroupWalk::Work kNoEnd = std::numeric_limits<GroupWalk::Work>::max();

GroupNameMatcher MatcherOf(const std::set<std::string>& names) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(names);
  return matcher;
}

// All that a walk finds, left each time that this much work is done.
std::vector<std::string> FindAll(const IniFile& document, const GroupNameMatcher& matcher, GroupWalk::Work step) {
  const GroupWalk walk(matcher);
  std::vector<std::string> found;
  for (auto group = document.begin(); group != document.end();) {
    GroupWalk::Work work = step;
    group = walk.FindNext(document, group, document.end(), work);
    if (work > 0 && group != document.end()) found.push_back((group++)->first);
  }
  return found;
}

// What is left of "work" once the walk has found nothing.
GroupWalk::Work CountVisited(const IniFile& document, const GroupNameMatcher& matcher) {
  GroupWalk::Work work = 1000;
  GroupWalk(matcher).FindNext(document, document.begin(), document.end(), work);
  return 1000 - work;
}

std::string RandomName(RandomDocuments& random) {
  std::string name;
  for (size_t left = random.Below(5); left > 0; --left) name += "ab*"[random.Below(3)];
  return name;
}

IniFile HundredGroups() {
  IniFile document;
  for (int group = 100; group < 200; ++group) document[std::to_string(group)];
  return document;
}

TEST(GroupWalk, FindsWhatTheMatcherFinds) {
  RandomDocuments random(1);
  for (int round = 0; round < 3000; ++round) {
    IniFile document;
    for (size_t left = random.Below(20); left > 0; --left) document[RandomName(random)];
    std::set<std::string> names;
    for (size_t left = random.Below(5); left > 0; --left) names.insert(RandomName(random));
    const GroupNameMatcher matcher = MatcherOf(names);
    std::set<std::string> expected;
    matcher.GetMatchingGroups(document, expected);
    ASSERT_THAT(FindAll(document, matcher, kNoEnd), testing::ElementsAreArray(expected)) << round;
    ASSERT_THAT(FindAll(document, matcher, 2), testing::ElementsAreArray(expected)) << round;
    const GroupWalk walk(matcher);
    for (const auto& group : document) ASSERT_EQ(walk.Matches(group.first), expected.count(group.first) != 0) << round;
  }
}

TEST(GroupWalk, EndsAtTheGroupThatIsItsEnd) {
  const IniFile document = HundredGroups();
  const GroupNameMatcher matcher = MatcherOf({"15*", "199"});
  GroupWalk::Work work = kNoEnd;
  const auto end = document.GetGroups().find("120");
  EXPECT_EQ(GroupWalk(matcher).FindNext(document, document.begin(), end, work), end);
}

TEST(GroupWalk, VisitsOnlyGroupsThatMayMatch) {
  const IniFile document = HundredGroups();
  EXPECT_LE(CountVisited(document, MatcherOf({"none", "150.5"})), 3u);
  EXPECT_LE(CountVisited(document, MatcherOf({"15*x", "1*x*", "2*"})), 102u);
  EXPECT_LE(CountVisited(document, MatcherOf({"15*x"})), 12u);
  EXPECT_THAT(FindAll(document, MatcherOf({}), kNoEnd), IsEmpty());
}

TEST(GroupWalk, PatternsThatAreTriedOnEachGroupCountAsMoreWork) {
  std::set<std::string> patterns;
  for (std::string pattern = "1*1*1*1*"; patterns.size() < 250; pattern += "1*") patterns.insert(pattern);
  EXPECT_GT(CountVisited(HundredGroups(), MatcherOf(patterns)), 900u);
}

TEST(GroupWalk, ManyPatternsThatNoGroupCanMatchAreNotTried) {
  std::set<std::string> patterns;
  for (int pattern = 0; pattern < 250; ++pattern) patterns.insert("*x" + std::to_string(pattern));
  EXPECT_LE(CountVisited(HundredGroups(), MatcherOf(patterns)), 101u);
}

}  // namespace
