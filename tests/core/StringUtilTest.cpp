#include "tavix/core/StringUtil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using tavix::core::StringUtil;
using testing::ElementsAre;

std::vector<std::string> Split(const std::string& text, const std::string& delimiters, unsigned int maxParts) {
  std::vector<std::string> parts;
  StringUtil::Split(parts, text, delimiters, maxParts);
  return parts;
}

TEST(StringUtil, AStarStandsForAnyRunOfBytes) {
  for (const auto& [pattern, text] :
       {std::pair("Net*", "Net"), std::pair("Net*", "Net/Eth0"), std::pair("*", ""), std::pair("*", "anything"),
        std::pair("*/Eth0", "Net/Eth0"), std::pair("N*/*0", "Net/Eth0"), std::pair("**", "x"), std::pair("a*a", "aa"),
        std::pair("a*b*c", "a b c b c"), std::pair("*\n*", "a\nb"), std::pair("*.*", "."), std::pair("*a", "*a")})
    EXPECT_TRUE(StringUtil::MatchesPattern(pattern, text)) << pattern << " " << text;
}

TEST(StringUtil, EverythingButAStarStandsForItself) {
  for (const auto& [pattern, text] :
       {std::pair("Net*", "net"), std::pair("Net*", "Ne"), std::pair("*/Eth0", "Net/Eth1"), std::pair("a*a", "a"),
        std::pair("N?t", "Net"), std::pair("[N]et", "Net"), std::pair("Net", "Network"), std::pair("", "x"),
        std::pair("a*b*c", "acb"), std::pair("\\*", "*"), std::pair(".*", "x")})
    EXPECT_FALSE(StringUtil::MatchesPattern(pattern, text)) << pattern << " " << text;
}

TEST(StringUtil, APatternWithoutStarMatchesItselfAlone) {
  for (const char* text : {"", "Net", "a?b", "[x]", "\\"}) EXPECT_TRUE(StringUtil::MatchesPattern(text, text)) << text;
}

bool MatchesByDefinition(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] != '*')
    return !text.empty() && pattern[0] == text[0] && MatchesByDefinition(pattern.substr(1), text.substr(1));
  for (size_t taken = 0; taken <= text.size(); ++taken) {
    if (MatchesByDefinition(pattern.substr(1), text.substr(taken))) return true;
  }
  return false;
}

std::vector<std::string> AllTexts(const std::string& alphabet, size_t longest) {
  std::vector<std::string> texts{""};
  for (size_t i = 0; i < texts.size() && texts[i].size() < longest; ++i) {
    for (const char byte : alphabet) texts.push_back(texts[i] + byte);
  }
  return texts;
}

TEST(StringUtil, MatchesWhatTheDefinitionMatchesForAllShortPatterns) {
  const std::vector<std::string> texts = AllTexts("ab", 7);
  for (const std::string& pattern : AllTexts("ab*", 5)) {
    for (const std::string& text : texts)
      ASSERT_EQ(StringUtil::MatchesPattern(pattern, text), MatchesByDefinition(pattern, text))
          << pattern << " " << text;
  }
}

// A matcher that tries every split of the text would not end before the sun does.
TEST(StringUtil, ManyStarsDoNotMakeMatchingSlow) {
  std::string pattern;
  for (int i = 0; i < 200; ++i) pattern += "*a";
  EXPECT_FALSE(StringUtil::MatchesPattern(pattern + "b", std::string(20000, 'a')));
  EXPECT_TRUE(StringUtil::MatchesPattern(pattern, std::string(20000, 'a')));
}

// Where a search starts over at every byte this takes minutes.
TEST(StringUtil, LongPiecesOfAPatternAreFoundWithoutStartingOverAtEveryByte) {
  const std::string name(1'000'000, 'a');
  const std::string piece(500'000, 'a');
  EXPECT_TRUE(StringUtil::MatchesPattern("*" + piece + "*" + piece, name));
  EXPECT_FALSE(StringUtil::MatchesPattern("*" + piece + "b*", name));
  EXPECT_FALSE(StringUtil::MatchesPattern("*b" + piece + "*", name));
}

TEST(StringUtil, StartsWithTestsAPrefix) {
  EXPECT_TRUE(StringUtil::StartsWith("Network", "Net"));
  EXPECT_TRUE(StringUtil::StartsWith("Net", "Net"));
  EXPECT_TRUE(StringUtil::StartsWith("", ""));
  EXPECT_TRUE(StringUtil::StartsWith("Net", ""));
  EXPECT_FALSE(StringUtil::StartsWith("Net", "Network"));
  EXPECT_FALSE(StringUtil::StartsWith("network", "Net"));
  EXPECT_FALSE(StringUtil::StartsWith("", "N"));
}

TEST(StringUtil, EqualsIgnoringCaseTakesAsciiLettersAsEqual) {
  EXPECT_TRUE(StringUtil::EqualsIgnoringCase("TrUe", "tRuE"));
  EXPECT_TRUE(StringUtil::EqualsIgnoringCase("", ""));
  EXPECT_FALSE(StringUtil::EqualsIgnoringCase("true", "true "));
  EXPECT_FALSE(StringUtil::EqualsIgnoringCase("true", "tru"));
  EXPECT_FALSE(StringUtil::EqualsIgnoringCase("@[`{", "`{@["));
  EXPECT_FALSE(StringUtil::EqualsIgnoringCase("\xC3\x84", "\xC3\xA4"));
}

TEST(StringUtil, SplitsAtEveryDelimiter) {
  EXPECT_THAT(Split("a,b;c", ",;", 0), ElementsAre("a", "b", "c"));
  EXPECT_THAT(Split("abc", ",", 0), ElementsAre("abc"));
  EXPECT_THAT(Split("a,b", "", 0), ElementsAre("a,b"));
}

TEST(StringUtil, SplitKeepsEmptyParts) {
  EXPECT_THAT(Split("", ",", 0), ElementsAre(""));
  EXPECT_THAT(Split(",", ",", 0), ElementsAre("", ""));
  EXPECT_THAT(Split(",a,,b,", ",", 0), ElementsAre("", "a", "", "b", ""));
}

TEST(StringUtil, SplitGivesTheRestToTheLastPart) {
  EXPECT_THAT(Split("[group]key", "[]", 3), ElementsAre("", "group", "key"));
  EXPECT_THAT(Split("[a][b]", "[]", 3), ElementsAre("", "a", "[b]"));
  EXPECT_THAT(Split("[a]b]c", "[]", 3), ElementsAre("", "a", "b]c"));
  EXPECT_THAT(Split("[]key", "[]", 3), ElementsAre("", "", "key"));
  EXPECT_THAT(Split("[group]", "[]", 3), ElementsAre("", "group", ""));
  EXPECT_THAT(Split("[group", "[]", 3), ElementsAre("", "group"));
  EXPECT_THAT(Split("a,b,c", ",", 1), ElementsAre("a,b,c"));
  EXPECT_THAT(Split("a,b,c", ",", 2), ElementsAre("a", "b,c"));
}

TEST(StringUtil, SplitAppends) {
  std::vector<std::string> parts{"before"};
  StringUtil::Split(parts, "a,b", ",", 0);
  EXPECT_THAT(parts, ElementsAre("before", "a", "b"));
}

TEST(StringUtil, ParsesDecimalNumbers) {
  for (const auto& [text, number] :
       {std::pair("0", 0), std::pair("42", 42), std::pair("-42", -42), std::pair("+42", 42), std::pair(" \t42\t ", 42),
        std::pair("0042", 42), std::pair("2147483647", INT_MAX), std::pair("-2147483648", INT_MIN)}) {
    int value = 1;
    EXPECT_TRUE(StringUtil::TryParse(text, value)) << text;
    EXPECT_EQ(value, number) << text;
  }
}

TEST(StringUtil, WhatIsNoNumberLeavesTheValueUntouched) {
  const std::string withNul("1\0", 2);
  for (const std::string& text : std::vector<std::string>{"", " ", "+", "-", "+-1", "++1", "1 2", "1a", "a1", "0x1",
                                                          "1.0", "2147483648", "-2147483649", "1\n", withNul}) {
    int value = 17;
    EXPECT_FALSE(StringUtil::TryParse(text, value)) << text;
    EXPECT_EQ(value, 17) << text;
  }
}

}  // namespace
