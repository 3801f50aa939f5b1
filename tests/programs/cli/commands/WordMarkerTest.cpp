#include "programs/cli/commands/WordMarker.h"

#include <gtest/gtest.h>

#include "programs/cli/commands/CommandLine.h"

namespace tavix::test {

namespace {

using programs::cli::CommandLine;
using programs::cli::WordMarker;

using Words = std::vector<std::string>;

// The words with '!' in front of those that the parser takes as they are.
Words Mark(const Words& words) {
  const CommandLine line;
  Words marked = WordMarker(line.GetApp()).Mark(words);
  for (std::string& word : marked) {
    if (!word.empty() && word.front() == '\x01') word.front() = '!';
  }
  return marked;
}

}  // namespace

TEST(WordMarker, MarksTheValueOfASettingWhateverItLooksLike) {
  for (const char* value : {"-h", "--json", "-5", "--", "set", "-"})
    EXPECT_EQ(Mark({"set", "A", "x", value}), Words({"set", "A", "x", std::string("!") + value}));
  EXPECT_EQ(Mark({"set", "[A]x", "-q", "-q"}), Words({"set", "![A]x", "!-q", "-q"}));
}

TEST(WordMarker, LeavesOptionsThatStandElsewhere) {
  EXPECT_EQ(Mark({"set", "-h"}), Words({"set", "-h"}));
  EXPECT_EQ(Mark({"set", "A", "-h"}), Words({"set", "A", "-h"}));
  EXPECT_EQ(Mark({"set", "A", "x=1", "--json"}), Words({"set", "A", "x=1", "--json"}));
  EXPECT_EQ(Mark({"get", "A", "x", "-n"}), Words({"get", "A", "x", "-n"}));
}

TEST(WordMarker, StepsOverTheValuesOfOptions) {
  EXPECT_EQ(Mark({"-s", "set", "set", "--if", "[A]x=1", "A", "-qt", "5", "x", "-h"}),
            Words({"-s", "set", "set", "--if", "![A]x=1", "A", "-qt", "5", "x", "!-h"}));
  EXPECT_EQ(Mark({"-t5", "--server=a:1", "set", "A", "x", "-v"}),
            Words({"-t5", "--server=a:1", "set", "A", "x", "!-v"}));
  EXPECT_EQ(Mark({"get", "A", "--default", "--"}), Words({"get", "A", "--default", "!--"}));
}

TEST(WordMarker, TakesAnOptionWithItsValueInOneWordForNoSetting) {
  for (const std::string option : {"--server=", "--if=", "--default="}) {
    for (const std::string value : {"[::1]:7211", "{}", "%d", "-5", ""}) {
      EXPECT_EQ(Mark({"set", option + value, "G", "--dry-run", "k=v"}),
                Words({"set", option + "\x01" + value, "G", "--dry-run", "k=v"}));
      EXPECT_EQ(Mark({"set", option + value, "G", "k", "-h"}),
                Words({"set", option + "\x01" + value, "G", "k", "!-h"}));
    }
  }
  EXPECT_EQ(Mark({"set", "-5", "k", "-h"}), Words({"set", "!-5", "k", "!-h"}));
}

TEST(WordMarker, MarksAllBehindTheEndOfOptions) {
  EXPECT_EQ(Mark({"get", "--", "-x", "--json", "--"}), Words({"get", "!-x", "!--json", "!--"}));
  EXPECT_EQ(Mark({"set", "A", "x", "--", "-h"}), Words({"set", "A", "x", "!-h"}));
  EXPECT_EQ(Mark({"--", "resource", "show", "-x"}), Words({"resource", "show", "!-x"}));
}

}  // namespace tavix::test
