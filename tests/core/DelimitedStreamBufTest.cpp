#include "tavix/core/DelimitedStreamBuf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/osa/PipeStreamPair.h"

namespace {

using tavix::stl::DelimitedIstream;
using tavix::stl::DelimitedStreamBuf;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Lines(std::istream& in) {
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> LinesOfView(std::istream& source, const char* delimiter = ".") {
  DelimitedIstream view(&source, delimiter);
  return Lines(view);
}

TEST(DelimitedStreamBuf, EndsAtALineThatHoldsOnlyTheDelimiter) {
  std::istringstream source("Net\nAudio\n.\nnext");
  EXPECT_THAT(LinesOfView(source), ElementsAre("Net", "Audio"));
}

TEST(DelimitedStreamBuf, LeavesTheSourceRightBehindTheDelimitersLine) {
  std::istringstream source("Net\n.\nnext\n.\n");
  EXPECT_THAT(LinesOfView(source), ElementsAre("Net"));
  EXPECT_TRUE(source.good());
  EXPECT_EQ(source.tellg(), 6);
  EXPECT_THAT(LinesOfView(source), ElementsAre("next"));
}

TEST(DelimitedStreamBuf, ShowsTheEndAtOnceWhenTheDelimiterComesFirst) {
  std::istringstream source(".\nnext");
  EXPECT_THAT(LinesOfView(source), IsEmpty());
  EXPECT_THAT(Lines(source), ElementsAre("next"));
}

TEST(DelimitedStreamBuf, TakesValuesVerbatim) {
  std::istringstream source(" Net \n\n\t# no comment\n\\n\n.\n");
  EXPECT_THAT(LinesOfView(source), ElementsAre(" Net ", "", "\t# no comment", "\\n"));
}

TEST(DelimitedStreamBuf, OnlyTheExactLineIsTheDelimiter) {
  std::istringstream source("..\n. \n .\n.\r\nx.\n.x\n.\n");
  EXPECT_THAT(LinesOfView(source), ElementsAre("..", ". ", " .", ".\r", "x.", ".x"));
}

TEST(DelimitedStreamBuf, EndsWhereTheSourceEnds) {
  std::istringstream source("Net\nAudio\n");
  EXPECT_THAT(LinesOfView(source), ElementsAre("Net", "Audio"));
  std::istringstream empty("");
  EXPECT_THAT(LinesOfView(empty), IsEmpty());
}

TEST(DelimitedStreamBuf, ALastLineWithoutLineFeedCounts) {
  std::istringstream source("Net\nAudio");
  EXPECT_THAT(LinesOfView(source), ElementsAre("Net", "Audio"));
}

TEST(DelimitedStreamBuf, KeepsMissingAndPresentLineFeedsAsTheyAre) {
  for (const std::string text : {"", "a", "a\n", "a\nb", "\n", "\n\n", "\na"}) {
    std::istringstream source(text);
    DelimitedStreamBuf view(&source, ".");
    std::ostringstream read;
    if (!text.empty()) read << &view;
    EXPECT_EQ(read.str(), text);
  }
}

TEST(DelimitedStreamBuf, ADelimiterWithoutLineFeedAtTheEndOfTheSourceEndsIt) {
  std::istringstream source("Net\n.");
  EXPECT_THAT(LinesOfView(source), ElementsAre("Net"));
}

TEST(DelimitedStreamBuf, StaysAtItsEnd) {
  std::istringstream source(".\nnext\n");
  DelimitedIstream view(&source);
  EXPECT_EQ(view.get(), std::char_traits<char>::eof());
  view.clear();
  EXPECT_EQ(view.get(), std::char_traits<char>::eof());
  EXPECT_THAT(Lines(source), ElementsAre("next"));
}

TEST(DelimitedStreamBuf, TheDelimiterMayBeAnyText) {
  std::istringstream source(".\nEN\nEND\nnext");
  EXPECT_THAT(LinesOfView(source, "END"), ElementsAre(".", "EN"));
  EXPECT_THAT(Lines(source), ElementsAre("next"));
}

TEST(DelimitedStreamBuf, TheDelimiterIsCopied) {
  std::istringstream source("a\nEND\nb");
  auto delimiter = std::make_unique<std::string>("END");
  DelimitedIstream view(&source, delimiter->c_str());
  delimiter.reset();
  EXPECT_THAT(Lines(view), ElementsAre("a"));
}

TEST(DelimitedStreamBuf, CarriesEveryByte) {
  std::mt19937 random(1);
  std::string bytes(100 * 1000, '\0');
  for (char& byte : bytes) byte = random() % 8 == 0 ? '\n' : static_cast<char>(random());
  std::replace(bytes.begin(), bytes.end(), '.', ',');
  bytes += "x\n";
  std::istringstream source(bytes + ".\n");
  DelimitedStreamBuf view(&source, ".");
  std::ostringstream read;
  read << &view;
  EXPECT_TRUE(read.str() == bytes);
}

// The peer waits for an answer behind the delimiter's line: whoever reads one byte more waits for ever.
TEST(DelimitedStreamBuf, NeverWaitsForBytesBehindTheDelimitersLine) {
  tavix::osa::PipeStreamPair pipe;
  *pipe.GetOstream() << "Net\n.\n" << std::flush;
  EXPECT_THAT(LinesOfView(*pipe.GetIstream()), ElementsAre("Net"));
  EXPECT_TRUE(pipe.GetIstream()->good());
}

TEST(DelimitedStreamBuf, ItsEndIsNotTheSources) {
  std::istringstream source("a\nb\n.\nnext");
  {
    DelimitedIstream view(&source);
    EXPECT_EQ(view.get(), 'a');
  }
  EXPECT_TRUE(source.good()) << "a view that goes leaves its source open";
}

TEST(DelimitedIstream, ItsDelimiterIsADotUnlessGiven) {
  std::istringstream source("a\n.\nb");
  DelimitedIstream view(&source);
  EXPECT_THAT(Lines(view), ElementsAre("a"));
}

}  // namespace
