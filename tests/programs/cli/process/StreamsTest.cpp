#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

class StandardStreams : public CommandTest {};

constexpr char kFull[] = "tavix-settings: standard output can't be written: No space left on device\n";
constexpr char kClosed[] = "tavix-settings: standard output can't be written: Bad file descriptor\n";

}  // namespace

TEST_F(StandardStreams, TalkBehindDataDoesNotHideThatTheDataWasLost) {
  for (const char* line : {"\"$0\" \"$@\" export >/dev/full", "\"$0\" \"$@\" -q export >/dev/full",
                           "\"$0\" \"$@\" get -z A N* >/dev/full", "\"$0\" \"$@\" set --dry-run A b=1 >/dev/full"}) {
    const Outcome outcome = RunInShell(line);
    EXPECT_EQ(outcome.status, 7) << line;
    EXPECT_THAT(outcome.errors, testing::EndsWith(kFull)) << line;
  }
}

TEST_F(StandardStreams, OutputThatIsClosedIsNoSuccess) {
  const Outcome outcome = RunInShell("\"$0\" \"$@\" show >&-");
  EXPECT_EQ(outcome.status, 7);
  EXPECT_EQ(outcome.errors, kClosed);
  EXPECT_EQ(RunInShell("\"$0\" \"$@\" -q set A b=1 >&- 2>&- <&-").status, 0);
}

TEST_F(StandardStreams, ValueNeverReachesTheServerInPlaceOfAClosedStream) {
  const std::string requests = "x\nmerge\n[Injected]\nby=value\n.\n";
  Run({"set", "A", "b", "-"}, requests + std::string(100000, 'y'));
  EXPECT_EQ(RunInShell("\"$0\" \"$@\" -o value get A b >&-").status, 7);
  EXPECT_EQ(RunInShell("\"$0\" \"$@\" -v get A b 2>&- >&-").status, 7);
  EXPECT_EQ(Ask("Injected"), "");
}

TEST_F(StandardStreams, InputThatIsClosedCanNotBeRead) {
  const Outcome outcome = RunInShell("\"$0\" \"$@\" import <&-");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "tavix-settings: failed to read '-': Bad file descriptor\n");
}

TEST_F(StandardStreams, InputIsOneValueAndNotTwo) {
  const Outcome outcome = Run({"set", "[A]b", "-", "[A]c", "-"}, "x\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "tavix-settings: '-' is standard input, which can be one value only\n");
  EXPECT_EQ(Ask("A"), "");
}

}  // namespace tavix::test
