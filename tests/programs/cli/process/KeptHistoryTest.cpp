// What the command prints and does by the history of a real daemon.

#include <gmock/gmock.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

class KeptHistory : public testing::Test {
 protected:
  KeptHistory()
      : _daemon(_directory, {"--defaults", _directory.Write("defaults.ini", "[A]\nb=default\nc=default\n"),
                             "--user-settings", "user.ini", "--history", "65536", "--checkpoints", "1", "--listen",
                             "unix:" + _directory.Path("socket")}) {
    _daemon.AwaitAddresses();
  }

  Outcome Run(Words words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "-t", "80", "-s", "unix:" + _directory.Path("socket")});
    return RunToEnd(_directory.GetPath(), words, {}, {{"LC_ALL", "C"}, {"TZ", "UTC0"}});
  }

  void ExpectRun(const Words& words, int status, const std::string& output, const std::string& errors) const {
    const Outcome outcome = Run(words);
    const std::string line = testing::PrintToString(words);
    EXPECT_EQ(WithoutChanging(outcome.output), output) << line;
    EXPECT_EQ(outcome.errors, errors) << line;
    EXPECT_EQ(outcome.status, status) << line;
  }

  // Times and processes are others each time.
  static std::string WithoutChanging(const std::string& text) {
    const std::string timeless =
        std::regex_replace(text, std::regex("20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"), "TIME");
    const passwd* const user = getpwuid(getuid());
    const std::string name = user != nullptr ? user->pw_name : "user " + std::to_string(getuid());
    return std::regex_replace(timeless, std::regex(name + ", process [0-9]+"), "ME");
  }

  const TemporaryDirectory _directory;
  const Daemon _daemon;
};

}  // namespace

TEST_F(KeptHistory, LogShowsWhoChangedWhat) {
  ExpectRun({"log"}, 0, "", "no changes are kept\n");
  Run({"set", "[A]b=1", "-m", "site 4"});
  Run({"set", "[A]b=2", "[B]x=1"});
  Run({"set", "[A]b=2"});  // no change
  Run({"reset", "--clean", "A"});
  Run({"delete", "B"});
  ExpectRun({"log"}, 0,
            "4  TIME  ME  amend\n"
            "   [B]x: 1 -> (default)\n"
            "   [B]: deleted\n"
            "3  TIME  ME  amend\n"
            "   [A]b: 2 -> (default)\n"
            "2  TIME  ME  merge\n"
            "   [A]b: 1 -> 2\n"
            "   [B]x: (default) -> 1\n"
            "1  TIME  ME  merge  site 4\n"
            "   [A]b: (default) -> 1\n",
            "");
  ExpectRun({"log", "-n", "1"}, 0, "4  TIME  ME  amend\n   [B]x: 1 -> (default)\n   [B]: deleted\n", "");
  ExpectRun({"log", "A", "-n", "1"}, 0, "3  TIME  ME  amend\n   [A]b: 2 -> (default)\n", "");
}

TEST_F(KeptHistory, BlameShowsTheLastChangeOfEachSetting) {
  Run({"set", "[A]b=1", "[A]d=1", "-m", "first"});
  Run({"set", "[A]d=2"});
  ExpectRun({"blame", "A"}, 0, "b  1  TIME  ME  first\nc  default\nd  2  TIME  ME\n", "");
}

TEST_F(KeptHistory, CheckpointsAreMadeListedAndForgotten) {
  ExpectRun({"checkpoint"}, 0, "", "no checkpoints\n");
  Run({"set", "[A]b=1"});
  const Outcome made = Run({"checkpoint", "good"});
  EXPECT_EQ(made.errors,
            "done: bring it back by: tavix-settings -s 'unix:" + _directory.Path("socket") + "' rollback @good\n");
  EXPECT_THAT(WithoutChanging(made.output), testing::MatchesRegex("good  revision 1  TIME  [0-9]+ bytes\n"));
  EXPECT_EQ(Run({"checkpoint"}).output, made.output);
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(_directory.Path("user.ini.checkpoint.good")).permissions(),
            perms::owner_read | perms::owner_write);
  ExpectRun({"checkpoint", "other"}, 7, "",
            "tavix-settings: not applied: 1 checkpoints are kept already: forget one of them\n");
  ExpectRun({"checkpoint", "good", "--forget"}, 0, "", "done: forgot checkpoint good\n");
  ExpectRun({"checkpoint", "good", "--forget"}, 7, "", "tavix-settings: not applied: no checkpoint is named 'good'\n");
}

TEST_F(KeptHistory, RollbackBringsSettingsBack) {
  Run({"set", "[A]b=1"});
  Run({"set", "[A]b=2", "[B]x=1"});
  Run({"checkpoint", "good"});
  const std::string changes = "[A]b: 2 -> 1\n[B]x: 1 -> (default)\n";
  ExpectRun({"rollback", "--dry-run", "1"}, 0, changes, "");
  ExpectRun({"rollback", "-y", "1", "A", "-m", "oops"}, 0, "[A]b: 2 -> 1\n", "done: 1 setting as after revision 1\n");
  ExpectRun({"rollback", "-y", "1"}, 0, "[B]x: 1 -> (default)\n", "done: 1 setting as after revision 1\n");
  ExpectRun({"rollback", "-y", "1"}, 0, "", "done: no differences\n");
  ExpectRun({"log", "-n", "1", "A"}, 0, "3  TIME  ME  rollback  oops\n   [A]b: 2 -> 1\n", "");
  ExpectRun({"rollback", "-y", "@good"}, 0, "[A]b: 1 -> 2\n[B]x: (default) -> 1\n",
            "done: 2 settings as in checkpoint good\n");
  ExpectRun({"rollback", "-y", "9"}, 7, "", "tavix-settings: not applied: revision 9 is not there: the last is 5\n");
}

TEST_F(KeptHistory, RollbackOnTrialGoesBackUnlessItIsConfirmed) {
  Run({"set", "[A]b=1"});
  Run({"set", "[A]b=2"});
  EXPECT_EQ(Run({"rollback", "-y", "1", "--try", "60", "--check", "false"}).status, 8);
  ExpectRun({"get", "[A]b"}, 0, "2\n", "");
  EXPECT_EQ(Run({"rollback", "-y", "1", "--try", "60", "--check", "true"}).status, 0);
  ExpectRun({"get", "[A]b"}, 0, "1\n", "");
}

}  // namespace tavix::test
