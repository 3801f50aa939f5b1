#include "tavix/settings/common/PatternIndex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/StringUtil.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::StringUtil;
using tavix::settings::common::PatternIndex;
using tavix::test::RandomDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::set<std::string>;

void AddAll(PatternIndex& index, const Texts& texts) {
  for (const std::string& text : texts) index.Add(text);
}

std::vector<std::string> Found(const PatternIndex& index, const std::string& name) {
  PatternIndex::Search search;
  EXPECT_TRUE(index.FindMatching(name, search));
  std::vector<std::string> found;
  for (const PatternIndex::Id id : search.GetFound()) found.push_back(index.GetText(id));
  std::sort(found.begin(), found.end());
  EXPECT_EQ(index.HasMatching(name, search), !found.empty()) << name;
  return found;
}

std::vector<std::string> Expected(const Texts& texts, const std::string& name) {
  std::vector<std::string> expected;
  for (const std::string& text : texts) {
    if (StringUtil::MatchesPattern(text, name)) expected.push_back(text);
  }
  return expected;
}

// Of few different bytes, so that texts meet; a zero byte and bytes of a UTF-8 letter are among them.
std::string RandomText(RandomDocuments& random, size_t max) {
  static const std::string bytes("ab*c/\0\xc3\xa4**", 10);
  std::string text(random.Below(max + 1), ' ');
  for (char& c : text) c = bytes[random.Below(bytes.size())];
  return text;
}

TEST(PatternIndex, FindsNamesAndPatterns) {
  PatternIndex index;
  AddAll(index, {"", "A", "Net*", "*net*", "N*t*1", "*", "**", "x*"});
  EXPECT_THAT(Found(index, ""), ElementsAre("", "*", "**"));
  EXPECT_THAT(Found(index, "A"), ElementsAre("*", "**", "A"));
  EXPECT_THAT(Found(index, "Net/Ethernet1"), ElementsAre("*", "**", "*net*", "N*t*1", "Net*"));
}

TEST(PatternIndex, ANameWithAStarIsFoundByItsPatternOnce) {
  PatternIndex index;
  AddAll(index, {"a*b"});
  EXPECT_THAT(Found(index, "a*b"), ElementsAre("a*b"));
}

TEST(PatternIndex, ATextThatIsThereKeepsItsId) {
  PatternIndex index;
  const PatternIndex::Id id = index.Add("Net*");
  index.Add("Other*");
  EXPECT_EQ(index.Add("Net*"), id);
  EXPECT_EQ(index.Find("Net*"), id);
  EXPECT_EQ(index.Find("Net"), PatternIndex::kNone);
}

TEST(PatternIndex, ForgetsWhatIsRemoved) {
  PatternIndex index;
  const Texts texts = {"A", "Net*", "*abc*", "*ab*", "*a*b*", "*"};
  for (int round = 0; round < 3; ++round) {
    AddAll(index, texts);
    for (const std::string& text : texts) index.Remove(index.Find(text));
    EXPECT_THAT(Found(index, "Net/abc"), IsEmpty());
    EXPECT_THAT(Found(index, "A"), IsEmpty());
  }
}

TEST(PatternIndex, WhileTextsComeAndGoItAgreesWithTryingEachOne) {
  RandomDocuments random(2104);
  PatternIndex index;
  Texts texts;
  for (int round = 0; round < 20000; ++round) {
    const std::string text = RandomText(random, 9);
    if (texts.insert(text).second) {
      index.Add(text);
    } else {
      index.Remove(index.Find(text));
      texts.erase(text);
    }
    if (texts.size() > 300) {
      index.Remove(index.Find(*texts.begin()));
      texts.erase(texts.begin());
    }
    const std::string name = RandomText(random, 12);
    ASSERT_EQ(Found(index, name), Expected(texts, name)) << testing::PrintToString(name);
  }
}

TEST(PatternIndex, FindsLongPatternsInLongNames) {
  const std::string x(4096, 'x');
  const std::string name = x + "end" + x;
  const Texts texts = {name, x + "*", "*" + x, "*" + x + "*end*" + x, "*" + x + "*", "*" + x + "y*", "y" + x + "*"};
  PatternIndex index;
  AddAll(index, texts);
  EXPECT_EQ(Found(index, name), Expected(texts, name));
}

// The figure is exact: what a change of many groups costs beside many patterns is counted, not timed.
TEST(PatternIndex, TriesFewOfManyPatternsWithDifferentTexts) {
  PatternIndex index;
  for (int i = 0; i < 4096; ++i) index.Add("*text" + std::to_string(i) + "*");
  PatternIndex::Search search;
  size_t found = 0;
  for (int i = 0; i < 20000; ++i) {
    index.FindMatching("Some/text" + std::to_string(i) + "/group", search);
    found += search.GetFound().size();
  }
  size_t expected = 0;  // each beginning of the number that is a pattern's
  for (int i = 0; i < 20000; ++i) {
    for (int begin = i, isDone = 0; !isDone; begin /= 10) {
      expected += begin < 4096;
      isDone = begin < 10;
    }
  }
  EXPECT_EQ(found, expected);
  EXPECT_LT(search.GetTried(), size_t{20000} * 4096 / 100) << "a hundredth of all pairs";
}

TEST(PatternIndex, SameBytesManyTimesInANameDoNotMultiplyTheWork) {
  PatternIndex index;
  for (int i = 0; i < 100; ++i) index.Add("*aaa*" + std::string(1 + i % 10, 'a') + std::string(1 + i / 10, '*'));
  PatternIndex::Search search;
  index.FindMatching(std::string(4096, 'a'), search);
  EXPECT_LE(search.GetTried(), 100u);
  EXPECT_EQ(search.GetFound().size(), 100u);
}

TEST(PatternIndex, ASearchWithALimitEndsWithoutAnAnswer) {
  PatternIndex index;
  for (int i = 0; i < 100; ++i) index.Add("*" + std::string(static_cast<size_t>(i), '*'));
  PatternIndex::Search search;
  search.SetMaxTried(99);
  EXPECT_FALSE(index.FindMatching("A", search));
  EXPECT_EQ(search.GetTried(), 99u);
  search.SetMaxTried(100);
  EXPECT_TRUE(index.FindMatching("A", search));
}

TEST(PatternIndex, CountsHowManyPatternsWouldBeAlike) {
  PatternIndex index;
  AddAll(index, {"*abc*", "*", "A"});
  EXPECT_EQ(index.CountAlikeWith({}), 0u);
  EXPECT_EQ(index.CountAlikeWith({"*abc*", "*"}), 0u) << "they are there";
  EXPECT_EQ(index.CountAlikeWith({"*xyz*", "*abcd*"}), 1u) << "each has a key of its own";
  EXPECT_EQ(index.CountAlikeWith({"*abc"}), 2u);
  EXPECT_EQ(index.CountAlikeWith({"**", "***"}), 3u);
}

TEST(PatternIndex, CountsAlikePatternsAsAddingThemWould) {
  RandomDocuments random(2105);
  for (int round = 0; round < 300; ++round) {
    PatternIndex one;
    PatternIndex other;
    Texts texts;
    for (size_t i = random.Below(60); i > 0; --i) texts.insert(RandomText(random, 4) + "*");
    size_t max = 0;
    for (const std::string& text : texts) {
      max = std::max(max, one.CountAlikeWith({text}));
      one.Add(text);
    }
    ASSERT_EQ(other.CountAlikeWith(texts), max);
  }
}

}  // namespace
