#include "tavix/settings/common/PreparedMatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::common::PreparedMatcher;
using tavix::test::RandomDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;
using Places = std::vector<IniFile::const_iterator>;

GroupNameMatcher MatcherOf(const Names& namesAndPatterns) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  return matcher;
}

IniFile DocumentWith(const Names& groups) {
  IniFile document;
  for (const std::string& group : groups) document[group];
  return document;
}

std::vector<std::string> NamesAt(const Places& places) {
  std::vector<std::string> names;
  for (const auto& place : places) names.push_back(place->first);
  return names;
}

std::string RandomName(RandomDocuments& random) {
  std::string name(random.Below(5), 'a');
  for (char& c : name) c = "ab*/"[random.Below(4)];
  return name;
}

Names RandomNames(RandomDocuments& random, size_t max) {
  Names names;
  for (size_t count = random.Below(max + 1); count > 0; --count) names.insert(RandomName(random));
  return names;
}

TEST(PreparedMatcher, MatchesNamesAndPatterns) {
  const PreparedMatcher matcher(MatcherOf({"A", "Net*", "*x*y"}));
  for (const char* name : {"A", "Net", "Network", "xy", "axby"}) EXPECT_TRUE(matcher.Matches(name)) << name;
  for (const char* name : {"", "AA", "Ne", "yx", "xyz"}) EXPECT_FALSE(matcher.Matches(name)) << name;
}

TEST(PreparedMatcher, WalksInPartsAndLooksOnlyAtWhatCanMatch) {
  const IniFile document = DocumentWith({"A", "B", "Net/1", "Net/2", "Net/3", "Other"});
  const PreparedMatcher matcher(MatcherOf({"B", "Net*", "Net/2", "None"}));
  PreparedMatcher::Position position;
  Places places;
  matcher.FindSome(document, position, 2, places);
  EXPECT_THAT(NamesAt(places), ElementsAre("B", "Net/1"));
  EXPECT_FALSE(position.isAtEnd);
  matcher.FindSome(document, position, 2, places);
  EXPECT_THAT(NamesAt(places), ElementsAre("B", "Net/1", "Net/2", "Net/3"));
  EXPECT_TRUE(position.isAtEnd) << "no other group can match";
}

TEST(PreparedMatcher, GoesOnBehindAGroupThatIsGone) {
  IniFile document = DocumentWith({"A1", "A2", "A3"});
  const PreparedMatcher matcher(MatcherOf({"A*"}));
  PreparedMatcher::Position position;
  Places places;
  matcher.FindSome(document, position, 2, places);
  document.RemoveGroup("A2");
  document["A25"];
  document["A0"];
  places.clear();
  matcher.FindSome(document, position, 9, places);
  EXPECT_THAT(NamesAt(places), ElementsAre("A25", "A3"));
}

TEST(PreparedMatcher, FindsNothingForAnEmptyMatcher) {
  const PreparedMatcher matcher{GroupNameMatcher()};
  PreparedMatcher::Position position;
  Places places;
  matcher.FindSome(DocumentWith({"", "A"}), position, 1, places);
  EXPECT_THAT(places, IsEmpty());
  EXPECT_TRUE(position.isAtEnd);
}

TEST(PreparedMatcher, InPartsOfAnySizeItFindsWhatTheMatcherFinds) {
  RandomDocuments random(2103);
  for (int round = 0; round < 3000; ++round) {
    const IniFile document = DocumentWith(RandomNames(random, 40));
    const GroupNameMatcher plain = MatcherOf(RandomNames(random, 8));
    const PreparedMatcher matcher(plain);
    Places expected;
    plain.GetMatchingGroups(document, expected);
    Places found;
    PreparedMatcher::Position position;
    while (!position.isAtEnd) matcher.FindSome(document, position, 1 + random.Below(5), found);
    ASSERT_EQ(NamesAt(found), NamesAt(expected)) << testing::PrintToString(plain.GetPatterns());
  }
}

}  // namespace
