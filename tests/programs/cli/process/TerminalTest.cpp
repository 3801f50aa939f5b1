#include <memory>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::Not;

class OnATerminal : public CommandTest {
 protected:
  std::unique_ptr<CommandProcess> Start(const Words& words, const Variables& more = {}) const {
    return std::make_unique<CommandProcess>(_directory.GetPath(), WithProgram(words), Environment(more),
                                            CommandProcess::Streams::kTerminal);
  }

  std::string RunThere(const Words& words, const Variables& more = {}) const {
    const auto process = Start(words, more);
    process->AwaitEnd();
    return process->GetOutput();
  }
};

constexpr char kColored[] = "\x1b[1;36m[Network/Wlan0]\x1b[0m\n\x1b[33menabled\x1b[0m=false\n";
constexpr char kPlain[] = "[Network/Wlan0]\nenabled=false\n";

}  // namespace

TEST_F(OnATerminal, ThereAreColorsUnlessSomethingForbidsThem) {
  const Words show{"show", "Network/Wlan0"};
  EXPECT_EQ(RunThere(show), kColored);
  EXPECT_EQ(RunThere(show, {{"NO_COLOR", ""}}), kColored);
  EXPECT_EQ(RunThere(show, {{"NO_COLOR", "1"}}), kPlain);
  EXPECT_EQ(RunThere(show, {{"TERM", "dumb"}}), kPlain);
  EXPECT_EQ(RunThere({"--color", "never", "show", "Network/Wlan0"}), kPlain);
  EXPECT_EQ(RunThere({"--color", "always", "show", "Network/Wlan0"}, {{"TERM", "dumb"}}), kColored);
}

TEST_F(OnATerminal, ChangesAndMatchesAreColored) {
  EXPECT_EQ(RunThere({"set", "--dry-run", "[Network/Eth0]dhcp=false"}),
            "\x1b[31m-[Network/Eth0]dhcp=true\x1b[0m\n\x1b[32m+[Network/Eth0]dhcp=false\x1b[0m\n");
  EXPECT_EQ(RunThere({"search", "Cam"}), "[Device/Identity]name=\x1b[1;31mCam\x1b[0mera\n");
}

TEST_F(OnATerminal, ControlBytesNeverReachIt) {
  Merge("[C]\nx=\\x1b[31mred\\x07\\n\\xc2\\x9b1m\\xff\n");
  Run({"set", "[C]y",
       "\xC2\x9B"
       "1m"});
  for (const Words& words : std::vector<Words>{{"get", "[C]x"},
                                               {"get", "[C]y"},
                                               {"get", "-n", "[C]x"},
                                               {"get", "-z", "C"},
                                               {"get", "-z", "[C]x"},
                                               {"get", "--json", "C"},
                                               {"get", "--json", "[C]y"},
                                               {"get", "-o", "value", "C"},
                                               {"get", "-o", "shell", "C"},
                                               {"show", "C"},
                                               {"search", "red"},
                                               {"export", "C"},
                                               {"watch", "C", "--initial", "--for", "0.01"}}) {
    Words plain = words;
    plain.insert(plain.begin(), "--color=never");
    const std::string output = RunThere(plain);
    for (const char* bytes : {"\x1b", "\x07", "\xC2\x9B", "\xFF"})
      EXPECT_THAT(output, Not(HasSubstr(bytes))) << words[0];
  }
  EXPECT_EQ(RunThere({"get", "[C]y"}), "\\xc2\\x9b1m\n");
}

TEST_F(OnATerminal, PatternAsksBeforeGroupsGo) {
  const auto yes = Start({"delete", "Network/*"});
  yes->AwaitOutput("Delete 2 groups? [y/N] ");
  EXPECT_EQ(yes->GetOutput(), "  Network/Eth0\n  Network/Wlan0\nDelete 2 groups? [y/N] ");
  yes->Write("y\n");
  EXPECT_EQ(yes->AwaitEnd(), 0);
  EXPECT_EQ(Ask("Network/*"), "");
}

TEST_F(OnATerminal, AnswerOfNoChangesNothing) {
  for (const char* answer : {"n\n", "\n", "\x04"}) {
    const auto no = Start({"delete", "Network/*"});
    no->AwaitOutput("? [y/N] ");
    no->Write(answer);
    EXPECT_EQ(no->AwaitEnd(), 1);
    EXPECT_THAT(no->GetOutput(), testing::EndsWith("tavix-settings: nothing was changed\n"));
  }
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(OnATerminal, ResetAsksForAPatternAndNotForAName) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  const auto reset = Start({"reset", "Network/*"});
  reset->AwaitOutput("Reset 1 group? [y/N] ");
  reset->Write("yes\n");
  EXPECT_EQ(reset->AwaitEnd(), 0);
  EXPECT_THAT(RunThere({"reset", "Network/Wlan0"}), testing::EndsWith("done: 1 group at its defaults\n"));
}

TEST_F(OnATerminal, ImportThatReplacesAsksBeforeGroupsGo) {
  _directory.Write("x.ini", "[Network/Eth0]\ndhcp=true\n");
  const auto no = Start({"import", "x.ini", "--replace"});
  no->AwaitOutput("? [y/N] ");
  EXPECT_EQ(no->GetOutput(), "  Device/Identity\n  Network/Wlan0\nDelete 2 groups that 'x.ini' lacks? [y/N] ");
  no->Write("n\n");
  EXPECT_EQ(no->AwaitEnd(), 1);
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
  const auto yes = Start({"import", "x.ini", "--replace"});
  yes->AwaitOutput("? [y/N] ");
  yes->Write("y\n");
  EXPECT_EQ(yes->AwaitEnd(), 0);
  EXPECT_EQ(Ask("*"), "[Network/Eth0]\ndhcp=true\n" + std::string(kRestricted));
}

TEST_F(OnATerminal, GroupThatCameWhileImportAskedStays) {
  _directory.Write("x.ini", Run({"export", "Network/Eth0"}).output);
  const auto process = Start({"import", "x.ini", "--replace", "Network/*"});
  process->AwaitOutput("Delete 1 group that 'x.ini' lacks? [y/N] ");
  Merge("[Network/New]\na=1\n");
  process->Write("y\n");
  EXPECT_EQ(process->AwaitEnd(), 4);
  EXPECT_THAT(process->GetOutput(),
              testing::EndsWith("tavix-settings: condition failed: there is a group 'Network/New' by now\n"));
}

TEST_F(OnATerminal, InterruptAtAPromptIsExitStatus130) {
  const auto process = Start({"delete", "Network/*"});
  process->AwaitOutput("? [y/N] ");
  process->Write("\x03");
  EXPECT_EQ(process->AwaitEnd(), 130);
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(OnATerminal, ImportWithoutAFileDoesNotWaitForSomebodyToTypeOne) {
  const auto process = Start({"import"});
  EXPECT_EQ(process->AwaitEnd(), 2);
  EXPECT_EQ(process->GetOutput(), "tavix-settings: expected a FILE, or a backup on standard input\n");
}

TEST_F(OnATerminal, WatchTellsWhatItWatches) {
  const auto process = Start({"--color=never", "watch", "Network/*"});
  process->AwaitOutput("watching Network/*; Ctrl-C ends\n");
  process->Write("\x03");
  EXPECT_EQ(process->AwaitEnd(), 130);
}

TEST_F(OnATerminal, ErrorStandsOnALineOfItsOwnBehindProgress) {
  std::string text = "[Big]\n";
  for (int i = 0; i < 1000; ++i) text += "k" + std::to_string(i) + "=" + std::string(1000, 'v') + "\n";
  _directory.Write("big.ini", text + "last=" + std::string(8000000, 'v') + "\n" + std::string(5000, 'n') + "=\n");
  const std::string output = RunThere({"import", "big.ini"});
  EXPECT_THAT(output, HasSubstr("\r\x1b[Kimport: "));
  EXPECT_THAT(output, HasSubstr("\r\x1b[Ktavix-settings: the connection to "));
}

TEST_F(OnATerminal, LongImportShowsItsProgress) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "[Many/" + std::to_string(i) + "]\nx=" + std::string(200, 'v') + "\n";
  _directory.Write("many.ini", text);
  const std::string output = RunThere({"import", "many.ini"});
  EXPECT_THAT(output, HasSubstr("\r\x1b[Kimport: 100 %"));
  EXPECT_THAT(output, testing::EndsWith("\r\x1b[Kdone: 5000 differences\n"));
  EXPECT_THAT(Run({"import", "many.ini"}).errors, "done: no differences\n");
}

}  // namespace tavix::test
