#include "tavix/settings/common/GroupNameMatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::test::DocumentOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

GroupNameMatcher MatcherOf(const Names& namesAndPatterns) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  return matcher;
}

IniFile DocumentWith(const Names& groups) {
  IniFile document;
  for (const std::string& group : groups) document.SetValue(group, "key", "of " + group);
  return document;
}

Names MatchingOf(const GroupNameMatcher& matcher, const Names& candidates) {
  Names out;
  matcher.GetMatchingGroups(candidates, out);
  return out;
}

std::string SerializedBy(const Names& namesAndPatterns, const Names& groups) {
  std::ostringstream text;
  MatcherOf(namesAndPatterns).SerializeIni(text, DocumentWith(groups));
  return text.str();
}

TEST(GroupNameMatcher, AStringWithAStarIsAPattern) {
  for (const char* pattern : {"*", "**", "Network/*", "*work", "a*b", "?*"}) {
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern(pattern);
    EXPECT_THAT(matcher.GetPatterns(), ElementsAre(pattern));
    EXPECT_THAT(matcher.GetNames(), IsEmpty());
  }
}

TEST(GroupNameMatcher, AStringWithoutAStarIsANameWhateverElseItHolds) {
  for (const char* name : {"", "Network", "Network/", "N?t", "[a-z]", "%", "\\", "a.b", " ", "."}) {
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern(name);
    EXPECT_THAT(matcher.GetNames(), ElementsAre(name));
    EXPECT_THAT(matcher.GetPatterns(), IsEmpty());
  }
}

TEST(GroupNameMatcher, AddingWhatIsThereChangesNothing) {
  GroupNameMatcher matcher = MatcherOf({"A", "B*"});
  matcher.AddNameOrPattern("A");
  matcher.AddNameOrPattern("B*");
  matcher.AddNamesAndPatterns({"A", "B*"});
  EXPECT_THAT(matcher.GetNames(), ElementsAre("A"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("B*"));
}

TEST(GroupNameMatcher, AddsEachMemberOfASetAsNameOrPattern) {
  GroupNameMatcher matcher = MatcherOf({"B", "M*", "Z"});
  matcher.AddNamesAndPatterns({"A", "A*", "C", "M*", "N", "ZZ", "Z*"});
  EXPECT_THAT(matcher.GetNames(), ElementsAre("A", "B", "C", "N", "Z", "ZZ"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("A*", "M*", "Z*"));
}

TEST(GroupNameMatcher, MergeMakesTheUnion) {
  GroupNameMatcher matcher = MatcherOf({"A", "B", "N*"});
  matcher.Merge(MatcherOf({"B", "C", "N*", "*"}));
  EXPECT_THAT(matcher.GetNames(), ElementsAre("A", "B", "C"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("*", "N*"));
}

TEST(GroupNameMatcher, MergeOfAMatcherIntoItselfChangesNothing) {
  GroupNameMatcher matcher = MatcherOf({"A", "B*"});
  matcher.Merge(matcher);
  EXPECT_THAT(matcher.GetNames(), ElementsAre("A"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("B*"));
}

TEST(GroupNameMatcher, ACopyGoesItsOwnWay) {
  const GroupNameMatcher original = MatcherOf({"A", "B*"});
  GroupNameMatcher copy = original;
  copy.AddNameOrPattern("C");
  EXPECT_THAT(copy.GetNames(), ElementsAre("A", "C"));
  EXPECT_THAT(original.GetNames(), ElementsAre("A"));
}

TEST(GroupNameMatcher, IsEmptyUntilANameOrAPatternIsAdded) {
  EXPECT_TRUE(GroupNameMatcher().IsEmpty());
  EXPECT_TRUE(MatcherOf({}).IsEmpty());
  for (const char* one : {"", "A", "*"}) EXPECT_FALSE(MatcherOf({one}).IsEmpty());
}

TEST(GroupNameMatcher, AnEmptyOneMatchesNothing) {
  const GroupNameMatcher matcher;
  EXPECT_THAT(MatchingOf(matcher, {"", "A"}), IsEmpty());
  Names kept = {"kept"};
  matcher.GetMatchingGroups(DocumentWith({"", "A"}), kept);
  EXPECT_THAT(kept, ElementsAre("kept"));
}

TEST(GroupNameMatcher, NamesMatchWhatEqualsThem) {
  EXPECT_THAT(MatchingOf(MatcherOf({"A", "C"}), {"A", "B", "C"}), ElementsAre("A", "C"));
  EXPECT_THAT(MatchingOf(MatcherOf({"Net"}), {"net", "Ne", "Net ", "Net/Eth0"}), IsEmpty());
  EXPECT_THAT(MatchingOf(MatcherOf({""}), {"", "A"}), ElementsAre(""));
}

TEST(GroupNameMatcher, NamesCreateNoGroups) {
  EXPECT_THAT(MatchingOf(MatcherOf({"A", "X"}), {"B"}), IsEmpty());
  EXPECT_THAT(MatchingOf(MatcherOf({"A", "*"}), {}), IsEmpty());
}

TEST(GroupNameMatcher, AStarStandsForAnyRunOfBytes) {
  const Names groups = {"Audio", "Net", "Net/Eth0", "Network", "Other"};
  EXPECT_THAT(MatchingOf(MatcherOf({"Net*"}), groups), ElementsAre("Net", "Net/Eth0", "Network"));
  EXPECT_THAT(MatchingOf(MatcherOf({"Net/*"}), groups), ElementsAre("Net/Eth0"));
  EXPECT_THAT(MatchingOf(MatcherOf({"Net*k"}), groups), ElementsAre("Network"));
  EXPECT_THAT(MatchingOf(MatcherOf({"*t*"}), groups), ElementsAre("Net", "Net/Eth0", "Network", "Other"));
  EXPECT_EQ(MatchingOf(MatcherOf({"*"}), groups), groups);
}

TEST(GroupNameMatcher, EverythingButAStarStandsForItself) {
  const Names groups = {"a?b", "a[x]b", "a\\*b", "axb"};
  EXPECT_THAT(MatchingOf(MatcherOf({"a?*"}), groups), ElementsAre("a?b"));
  EXPECT_THAT(MatchingOf(MatcherOf({"a[x]*"}), groups), ElementsAre("a[x]b"));
  EXPECT_THAT(MatchingOf(MatcherOf({"a\\*"}), groups), ElementsAre("a\\*b")) << "a backslash escapes no star";
}

TEST(GroupNameMatcher, BytesAreBytes) {
  const std::string nul("a\0b", 3);
  const Names groups = {nul, "a\xff", "a\xff\xff", "b"};
  EXPECT_THAT(MatchingOf(MatcherOf({nul}), groups), ElementsAre(nul));
  EXPECT_THAT(MatchingOf(MatcherOf({"a\xff*"}), groups), ElementsAre("a\xff", "a\xff\xff"));
}

TEST(GroupNameMatcher, AGroupMatchedTwiceStandsOnce) {
  const GroupNameMatcher matcher = MatcherOf({"Net", "N*", "*t", "*", "**", "***", "*e*"});
  const IniFile document = DocumentWith({"Net", "Other"});
  std::vector<IniFile::const_iterator> places;
  matcher.GetMatchingGroups(document, places);
  EXPECT_THAT(MatchingOf(matcher, {"Net", "Other"}), ElementsAre("Net", "Other"));
  EXPECT_THAT(places, ElementsAre(document.begin(), std::next(document.begin())));
}

TEST(GroupNameMatcher, AddsToTheGroupsFoundBefore) {
  Names out = {"A", "Z"};
  MatcherOf({"Net"}).GetMatchingGroups(Names{"Net", "Other"}, out);
  EXPECT_THAT(out, ElementsAre("A", "Net", "Z"));
  MatcherOf({"O*"}).GetMatchingGroups(DocumentWith({"Net", "Other"}), out);
  EXPECT_THAT(out, ElementsAre("A", "Net", "Other", "Z"));
}

TEST(GroupNameMatcher, ReplacesThePlacesFoundBefore) {
  const IniFile document = DocumentWith({"A", "B"});
  std::vector<IniFile::const_iterator> places(5, document.begin());
  MatcherOf({"B"}).GetMatchingGroups(document, places);
  EXPECT_THAT(places, ElementsAre(std::next(document.begin())));
  MatcherOf({"X"}).GetMatchingGroups(document, places);
  EXPECT_THAT(places, IsEmpty());
}

TEST(GroupNameMatcher, FindsFewNamesAmongManyGroups) {
  Names groups;
  for (int i = 0; i < 1000; ++i) groups.insert("Group" + std::to_string(i));
  const GroupNameMatcher matcher = MatcherOf({"A", "Group0", "Group17", "Group999", "Group9999", "Z"});
  EXPECT_THAT(MatchingOf(matcher, groups), ElementsAre("Group0", "Group17", "Group999"));
}

TEST(GroupNameMatcher, FindsFewGroupsAmongManyNames) {
  Names names;
  for (int i = 0; i < 1000; ++i) names.insert("Group" + std::to_string(i));
  EXPECT_THAT(MatchingOf(MatcherOf(names), {"A", "Group0", "Group999", "Group9999", "Z"}),
              ElementsAre("Group0", "Group999"));
}

// A matcher that tries every length for every star would not come to an end.
TEST(GroupNameMatcher, ManyStarsDoNotMultiplyTheWork) {
  const std::string text(10000, 'a');
  for (const char* pattern : {"a*a*a*a*a*a*a*a*a*a*b", "*a*a*a*a*a*a*a*a*a*b", "********************b"}) {
    EXPECT_THAT(MatchingOf(MatcherOf({pattern}), {text}), IsEmpty());
    EXPECT_THAT(MatchingOf(MatcherOf({pattern}), {text + "b"}), ElementsAre(text + "b"));
    EXPECT_EQ(SerializedBy({pattern}, {text}), "");
  }
}

TEST(GroupNameMatcher, SerializesTheMatchingGroupsInOrder) {
  EXPECT_EQ(SerializedBy({"A", "N*"}, {"A", "B", "N1", "N2"}), "[A]\nkey=of A\n[N1]\nkey=of N1\n[N2]\nkey=of N2\n");
  EXPECT_EQ(SerializedBy({}, {"A"}), "");
  EXPECT_EQ(SerializedBy({"X"}, {"A"}), "");
  EXPECT_EQ(SerializedBy({"*"}, {}), "") << "no groups, nothing to write";
}

// Deliberate: the walk passes a name that is greater than the group at hand and never comes back to it.
TEST(GroupNameMatcher, SerializingPassesANameThatIsGreaterThanAGroupBeforeIt) {
  EXPECT_EQ(SerializedBy({"b"}, {"a", "b"}), "");
  EXPECT_EQ(SerializedBy({"b", "c"}, {"a", "b", "c"}), "") << "each group passes the next name";
  EXPECT_EQ(SerializedBy({"b", "c"}, {"a", "c"}), "[c]\nkey=of c\n") << "but no more than one";
  EXPECT_EQ(SerializedBy({"a", "b"}, {"a", "b"}), "[a]\nkey=of a\n[b]\nkey=of b\n") << "nothing is passed";
  EXPECT_EQ(SerializedBy({"A", "B", "b"}, {"b"}), "[b]\nkey=of b\n") << "lesser names are no loss";
  EXPECT_THAT(MatchingOf(MatcherOf({"b"}), {"a", "b"}), ElementsAre("b")) << "matching has no such gap";
}

TEST(GroupNameMatcher, SerializingStillFindsAPassedNameByAPattern) {
  EXPECT_EQ(SerializedBy({"b", "b*"}, {"a", "b"}), "[b]\nkey=of b\n");
}

TEST(GroupNameMatcher, SerializesAGroupAsTheDocumentDoes) {
  const IniFile document = DocumentOf("[A]\nx=\\s1\n[Empty]\n");
  std::ostringstream text;
  MatcherOf({"*"}).SerializeIni(text, document);
  EXPECT_EQ(text.str(), tavix::test::TextOf(document));
}

}  // namespace
