#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tests/support/RandomDocument.h"

// The matcher against the plainest one that can be written.

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::test::RandomDocuments;

using Names = std::set<std::string>;

bool Matches(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') return Matches(pattern.substr(1), text) || (!text.empty() && Matches(pattern, text.substr(1)));
  return !text.empty() && pattern[0] == text[0] && Matches(pattern.substr(1), text.substr(1));
}

// Every string over the alphabet, up to that length.
Names AllStrings(std::string_view alphabet, size_t most) {
  Names all = {""};
  for (size_t length = 0; length < most; ++length) {
    Names longer = all;
    for (const std::string& text : all) {
      for (const char c : alphabet) longer.insert(text + c);
    }
    all.swap(longer);
  }
  return all;
}

std::string RandomName(RandomDocuments& random) {
  std::string name(random.Below(5), 'a');
  for (char& c : name) c = "ab*/"[random.Below(4)];
  return name;
}

Names RandomNames(RandomDocuments& random, size_t most) {
  Names names;
  for (size_t count = random.Below(most + 1); count > 0; --count) names.insert(RandomName(random));
  return names;
}

IniFile DocumentWith(const Names& groups) {
  IniFile document;
  for (const std::string& group : groups) document[group];
  return document;
}

Names ExpectedMatches(const Names& namesAndPatterns, const Names& groups) {
  Names expected;
  for (const std::string& group : groups) {
    for (const std::string& wanted : namesAndPatterns) {
      if (Matches(wanted, group)) expected.insert(group);
    }
  }
  return expected;
}

Names MatchesByPlaces(const GroupNameMatcher& matcher, const IniFile& document) {
  std::vector<IniFile::const_iterator> places;
  matcher.GetMatchingGroups(document, places);
  Names names;
  for (const auto& place : places) {
    EXPECT_TRUE(names.empty() || *names.rbegin() < place->first) << "ascending, each once";
    names.insert(place->first);
  }
  return names;
}

// All forms of the question must give the same answer.
void ExpectMatches(const Names& namesAndPatterns, const Names& groups, const IniFile& document) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  const Names expected = ExpectedMatches(namesAndPatterns, groups);
  Names ofSet;
  Names ofDocument;
  matcher.GetMatchingGroups(groups, ofSet);
  matcher.GetMatchingGroups(document, ofDocument);
  const std::string what = "asked for " + testing::PrintToString(namesAndPatterns);
  ASSERT_EQ(ofSet, expected) << what;
  ASSERT_EQ(ofDocument, expected) << what;
  ASSERT_EQ(MatchesByPlaces(matcher, document), expected) << what;
}

// Each group in turn uses up the names before it and one more; it matches when that one is its own.
std::string ExpectedText(const Names& namesAndPatterns, const Names& groups) {
  std::vector<std::string> names;
  Names patterns;
  for (const std::string& wanted : namesAndPatterns) {
    if (wanted.find('*') != std::string::npos) {
      patterns.insert(wanted);
    } else {
      names.push_back(wanted);
    }
  }
  std::string text;
  size_t used = 0;
  for (const std::string& group : groups) {
    while (used < names.size() && names[used] < group) ++used;
    const bool named = used < names.size() && names[used] == group;
    if (used < names.size()) ++used;
    if (named || !ExpectedMatches(patterns, {group}).empty()) text += "[" + group + "]\n";
  }
  return text;
}

TEST(GroupNameMatcherModel, EveryShortNameAndPatternAgreesWithThePlainMatcher) {
  const Names groups = AllStrings("ab*", 5);
  const IniFile document = DocumentWith(groups);
  for (const std::string& wanted : groups) ExpectMatches({wanted}, groups, document);
}

TEST(GroupNameMatcherModel, ManyNamesAndPatternsTogetherAgreeWithThePlainMatcher) {
  RandomDocuments random(2101);
  for (int round = 0; round < 3000; ++round) {
    const Names groups = RandomNames(random, 60);
    ExpectMatches(RandomNames(random, 8), groups, DocumentWith(groups));
  }
}

// From some patterns on they are found by an index.
TEST(GroupNameMatcherModel, ManyPatternsOnManyGroupsAgreeWithThePlainMatcher) {
  RandomDocuments random(2107);
  for (int round = 0; round < 300; ++round) {
    const Names groups = RandomNames(random, 400);
    ExpectMatches(RandomNames(random, 100), groups, DocumentWith(groups));
  }
}

TEST(GroupNameMatcherModel, SerializingAgreesWithItsPlainWalk) {
  RandomDocuments random(2102);
  for (int round = 0; round < 3000; ++round) {
    const Names wanted = RandomNames(random, 8);
    const Names groups = RandomNames(random, 12);
    GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(wanted);
    std::ostringstream text;
    matcher.SerializeIni(text, DocumentWith(groups));
    ASSERT_EQ(text.str(), ExpectedText(wanted, groups)) << testing::PrintToString(wanted);
  }
}

}  // namespace
