#include "tavix/settings/common/DelimitedValues.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/osa/PipeStreamPair.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::osa::PipeStreamPair;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::common::GroupNameMatcherInsertIterator;
using tavix::settings::common::readDelimitedValues;
using tavix::test::RandomDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

Names SetFrom(std::istream& in) {
  Names values;
  readDelimitedValues(&in, std::inserter(values, values.begin()));
  return values;
}

Names SetFrom(const std::string& text) {
  std::istringstream in(text);
  return SetFrom(in);
}

std::vector<std::string> ListFrom(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> values;
  readDelimitedValues(&in, std::back_inserter(values));
  return values;
}

std::string RestOf(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(DelimitedValues, EndBehindTheTerminatorsLine) {
  std::istringstream in("Net\nAudio\n.\nnext");
  EXPECT_THAT(SetFrom(in), ElementsAre("Audio", "Net"));
  EXPECT_EQ(RestOf(in), "next");
}

TEST(DelimitedValues, ATerminatorAloneIsAnEmptyList) {
  std::istringstream in(".\n.\nrest");
  EXPECT_THAT(SetFrom(in), IsEmpty());
  EXPECT_THAT(SetFrom(in), IsEmpty()) << "one after the other";
  EXPECT_EQ(RestOf(in), "rest");
}

TEST(DelimitedValues, AreTakenVerbatim) {
  const std::string odd("\0 \xff\x01", 4);
  EXPECT_THAT(ListFrom(" Net \n\tx\n# no comment\n\\n\na=b\n" + odd + "\n.\n"),
              ElementsAre(" Net ", "\tx", "# no comment", "\\n", "a=b", odd));
}

TEST(DelimitedValues, AnEmptyLineIsAnEmptyValue) {
  EXPECT_THAT(ListFrom("\n.\n"), ElementsAre(""));
  EXPECT_THAT(ListFrom("\n\nA\n.\n"), ElementsAre("", "", "A"));
}

TEST(DelimitedValues, KeepTheirOrder) {
  EXPECT_THAT(ListFrom("b\na\nb\n.\n"), ElementsAre("b", "a", "b"));
}

TEST(DelimitedValues, OnlyALineWithNothingButADotEndsThem) {
  EXPECT_THAT(ListFrom("..\n .\n. \n.x\na.\n.\r\n.\nnext\n"), ElementsAre("..", " .", ". ", ".x", "a.", ".\r"));
}

TEST(DelimitedValues, InASetDuplicatesAreOne) {
  EXPECT_THAT(SetFrom("B\nA\nB\nA\n.\n"), ElementsAre("A", "B"));
}

TEST(DelimitedValues, AreAddedToWhatASetHolds) {
  std::istringstream in("B\n.\n");
  Names values = {"A", "C"};
  readDelimitedValues(&in, std::inserter(values, values.begin()));
  EXPECT_THAT(values, ElementsAre("A", "B", "C"));
}

TEST(DelimitedValues, InAMatcherAreNamesOrPatterns) {
  std::istringstream in("Net\nNet/*\nNet\n\n.\nnext");
  GroupNameMatcher matcher;
  readDelimitedValues(&in, GroupNameMatcherInsertIterator(matcher));
  EXPECT_THAT(matcher.GetNames(), ElementsAre("", "Net"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("Net/*"));
  EXPECT_EQ(RestOf(in), "next");
}

TEST(DelimitedValues, TheMatchersIteratorAddsWithEitherIncrement) {
  GroupNameMatcher matcher;
  GroupNameMatcherInsertIterator out(matcher);
  *out = "A";
  *++out = "B";
  *out++ = "C*";
  EXPECT_THAT(matcher.GetNames(), ElementsAre("A", "B"));
  EXPECT_THAT(matcher.GetPatterns(), ElementsAre("C*"));
}

TEST(DelimitedValues, AStreamThatEndsFirstEndsTheList) {
  EXPECT_THAT(ListFrom("Net\nAudio\n"), ElementsAre("Net", "Audio"));
  EXPECT_THAT(ListFrom("Net\nAudio"), ElementsAre("Net", "Audio")) << "a last line needs no line feed";
  EXPECT_THAT(ListFrom("Net\n."), ElementsAre("Net")) << "nor does a terminator";
  EXPECT_THAT(ListFrom(""), IsEmpty());
}

TEST(DelimitedValues, AFailedStreamYieldsNothing) {
  std::istringstream in("Net\n.\n");
  in.setstate(std::ios::badbit);
  EXPECT_THAT(SetFrom(in), IsEmpty());
}

// The reader of a connection must not wait for bytes that come only after it has answered.
TEST(DelimitedValues, NothingBehindTheTerminatorIsWaitedFor) {
  PipeStreamPair pipe;
  *pipe.GetOstream() << "Net\n.\n" << std::flush;
  EXPECT_THAT(SetFrom(*pipe.GetIstream()), ElementsAre("Net"));
  *pipe.GetOstream() << "next\n" << std::flush;
  std::string line;
  EXPECT_TRUE(std::getline(*pipe.GetIstream(), line));
  EXPECT_EQ(line, "next");
}

TEST(DelimitedValues, AnyValuesComeBackAsTheyWereWritten) {
  RandomDocuments random(2301);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::string> values;
    std::string text;
    for (size_t count = random.Below(6); count > 0; --count) {
      std::string value = random.NextText(300);
      for (char& byte : value) byte = byte == '\n' ? '_' : byte;
      if (value == ".") continue;
      text += value + '\n';
      values.push_back(std::move(value));
    }
    ASSERT_EQ(ListFrom(text + ".\nnext"), values);
  }
}

}  // namespace
