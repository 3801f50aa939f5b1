#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/programs/server/Daemon.h"

// User settings that two daemons want.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

class InUse : public testing::Test {
 protected:
  // Runs a second daemon on that file to its end, which is to say that the first has it.
  void ExpectRefused(const Daemon& first, const std::string& file, const std::string& named) const {
    Daemon second(_directory, {"--user-settings", file});
    EXPECT_EQ(second.AwaitEnd(), 69);
    EXPECT_EQ(second.GetOutput(), "");
    EXPECT_EQ(second.GetErrors(),
              "tavix-settings-server: '" + named + "' is in use by process " + std::to_string(first.GetId()) + "\n");
  }

  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(InUse, SecondDaemonIsRefusedAndToldByWhom) {
  Daemon first(_directory, {"--user-settings", "user.ini"});
  first.AwaitAddresses();
  ExpectRefused(first, "user.ini", "user.ini");
  ProtocolClient(first.GetPort()).AwaitHandled();
}

TEST_F(InUse, FileIsKeptThoughASaveReplacedIt) {
  Daemon first(_directory, {"--user-settings", "user.ini"});
  Converse(first.GetPort(), "merge\n[A]\nx=1\n.\nmerge\n[A]\nx=2\n.\n");
  ExpectRefused(first, "user.ini", "user.ini");
  EXPECT_EQ(Converse(first.GetPort(), "get\nA\n.\n"), "[A]\nx=2\n");
}

TEST_F(InUse, FileIsTheSameUnderTheNameOfALink) {
  fs::create_symlink("user.ini", _directory.Path("link.ini"));
  Daemon first(_directory, {"--user-settings", "user.ini"});
  first.AwaitAddresses();
  ExpectRefused(first, "link.ini", "user.ini");
}

TEST_F(InUse, CheckMayLookMeanwhile) {
  Daemon first(_directory, {"--user-settings", "user.ini"});
  first.AwaitAddresses();
  Daemon check(_directory, {"--check", "--user-settings", "user.ini"});
  EXPECT_EQ(check.AwaitEnd(), 0);
}

TEST_F(InUse, CrashLetsTheFileGo) {
  {
    Daemon first(_directory, {"--user-settings", "user.ini"});
    first.AwaitAddresses();
    EXPECT_EQ(first.Stop(SIGKILL), 128 + SIGKILL);
  }
  Daemon second(_directory, {"--user-settings", "user.ini"});
  ProtocolClient(second.GetPort()).AwaitHandled();
}

TEST_F(InUse, StoppedDaemonLeavesNoLock) {
  Daemon first(_directory, {"--user-settings", "user.ini"});
  first.AwaitAddresses();
  EXPECT_EQ(first.Stop(), 0);
  EXPECT_TRUE(fs::is_empty(_directory.GetPath()));
}

// A device whose disk is missing or can't be written has to come up all the same.
TEST_F(InUse, LockThatCanNotBeMadeIsWarnedOfAndTheDaemonServes) {
  Daemon daemon(_directory, {"--user-settings", "gone/user.ini"});
  ProtocolClient(daemon.GetPort()).AwaitHandled();
  daemon.AwaitErrors(
      "WARNING Program: Failed to lock 'gone/user.ini.lock': No such file or directory; nothing keeps a second daemon "
      "off the user settings\n");
}

// It may be another user's daemon that made it, and holds it.
TEST_F(InUse, LockThatIsThereAndCanNotBeUsedRefusesTheDaemon) {
  fs::create_symlink("elsewhere", _directory.Path("user.ini.lock"));
  Daemon daemon(_directory, {"--user-settings", "user.ini"});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
  EXPECT_EQ(daemon.GetOutput(), "");
  EXPECT_EQ(daemon.GetErrors(),
            "tavix-settings-server: Failed to lock 'user.ini.lock': Too many levels of symbolic links\n");
}

TEST_F(InUse, FullDiskDoesNotCostTheLock) {
  Daemon first(_directory, {"--user-settings", "user.ini"}, {{}, 0});
  first.AwaitAddresses();
  Daemon second(_directory, {"--user-settings", "user.ini"});
  EXPECT_EQ(second.AwaitEnd(), 69);
  EXPECT_EQ(second.GetErrors(), "tavix-settings-server: 'user.ini' is in use by process ?\n");
  EXPECT_EQ(first.GetErrors(), "");
}

TEST_F(InUse, ManyAtOnceLeaveExactlyOne) {
  for (int round = 0; round < 5; ++round) {
    std::vector<std::unique_ptr<Daemon>> daemons;
    for (int i = 0; i < 6; ++i)
      daemons.push_back(std::make_unique<Daemon>(_directory, std::vector<std::string>{"--user-settings", "user.ini"}));
    int serving = 0;
    int refused = 0;
    for (const auto& daemon : daemons) {
      try {
        daemon->AwaitAddresses();
        ++serving;
      } catch (const std::runtime_error&) {  // it ended without
        EXPECT_EQ(daemon->AwaitEnd(), 69);
        ++refused;
      }
    }
    EXPECT_EQ(serving, 1);
    EXPECT_EQ(refused, 5);
  }
}

}  // namespace tavix::test
