#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr unsigned long kRoom = 64 * 1024;

// A daemon whose user settings lie in a directory of their own, with one value saved.
class Saving : public testing::Test {
 protected:
  explicit Saving(const ProcessLimits& limits = {})
      : _daemon(_directory, {"--user-settings", UserFile()}, limits), _client(_daemon.GetPort()) {
    Merge("x=1\n");
    EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=1\n");
  }

  // Returns when the change was saved, or could not be.
  void Merge(const std::string& settings) {
    _client.Send("merge\n[A]\n" + settings + ".\n");
    _client.AwaitHandled();
  }

  std::string UserFile() {
    fs::create_directories(_directory.Path("data"));
    return "data/user.ini";
  }

  void TakeTheDirectoryAway() { fs::rename(_directory.Path("data"), _directory.Path("away")); }
  void BringTheDirectoryBack() { fs::rename(_directory.Path("away"), _directory.Path("data")); }

  const TemporaryDirectory _directory;
  Daemon _daemon;
  ProtocolClient _client;
};

class SavingOnAFullDisk : public Saving {
 protected:
  SavingOnAFullDisk() : Saving({{}, kRoom}) {}

  void MakeRoom() {
    rlimit limit{};
    ASSERT_EQ(prlimit(_daemon.GetId(), RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(prlimit(_daemon.GetId(), RLIMIT_FSIZE, &limit, nullptr), 0);
  }
};

constexpr char kNoDirectory[] =
    "ERROR SettingsSources: Failed to create 'data/user.ini.new': No such file or directory; the change is kept in "
    "memory and saved with the next one\n";

}  // namespace

TEST_F(Saving, WithoutItsDirectoryTheDaemonServesOnAndTheNextSaveHoldsWhatWasMissed) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  _daemon.AwaitErrors(kNoDirectory);
  EXPECT_EQ(_client.Get("A\n"), "data\n[A]\nx=2\n.\n");
  EXPECT_EQ(_directory.Read("away/user.ini"), "[A]\nx=1\n");
  BringTheDirectoryBack();
  Merge("y=3\n");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=2\ny=3\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(Saving, WhenTheNewFileCanNotBeMadeTheOldOneStaysWhole) {
  fs::create_directories(_directory.Path("data/user.ini.new/full"));
  Merge("x=2\n");
  _daemon.AwaitErrors("ERROR SettingsSources: Failed to remove 'data/user.ini.new': Is a directory; ");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=1\n");
  fs::remove_all(_directory.Path("data/user.ini.new"));
  Merge("y=3\n");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=2\ny=3\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(Saving, WhatAnInterruptedSaveLeftIsReplaced) {
  _directory.Write("data/user.ini.new", "[A");
  Merge("x=2\n");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=2\n");
  EXPECT_FALSE(_directory.Has("data/user.ini.new"));
}

TEST_F(Saving, ChangeThatCanNotBeSavedIsAnnouncedAllTheSame) {
  _client.Send("subscribe\nA\n.\n");
  TakeTheDirectoryAway();
  _client.Send("merge\n[A]\nx=2\n.\n");
  EXPECT_EQ(_client.ReadUntil("x=2\n.\n"), "async change\nA\n.\n[A]\nx=2\n.\n");
  BringTheDirectoryBack();
}

TEST_F(Saving, ChangeThatIsStillUnsavedAtTheEndIsSavedThen) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  BringTheDirectoryBack();
  EXPECT_EQ(_daemon.Stop(), 0);
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=2\n");
}

TEST_F(Saving, ChangeThatCanNotBeSavedAtTheEndEitherEndsTheDaemonWithStatus74) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  EXPECT_EQ(_daemon.Stop(), 74);
  EXPECT_THAT(_daemon.GetErrors(), testing::HasSubstr(kNoDirectory));
  EXPECT_EQ(_directory.Read("away/user.ini"), "[A]\nx=1\n");
}

TEST_F(Saving, ChangeThatIsNotToBeSavedDoesNotTry) {
  TakeTheDirectoryAway();
  _client.Send("merge nopersist\n[A]\nx=2\n.\n");
  _client.AwaitHandled();
  EXPECT_EQ(_daemon.Stop(), 0);
  EXPECT_EQ(_daemon.GetErrors(), "");
}

TEST_F(SavingOnAFullDisk, OldFileStaysWholeAndNothingIsLeftBesideIt) {
  const std::string large(2 * kRoom, 'v');
  Merge("large=" + large + "\n");
  _daemon.AwaitErrors("ERROR SettingsSources: Failed to write 'data/user.ini.new': File too large; ");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=1\n");
  EXPECT_FALSE(_directory.Has("data/user.ini.new"));
  EXPECT_EQ(_client.Get("A\n"), "data\n[A]\nlarge=" + large + "\nx=1\n.\n");
  MakeRoom();
  Merge("y=3\n");
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nlarge=" + large + "\nx=1\ny=3\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(SavingOnAFullDisk, NoRoomAtTheEndEitherIsStatus74AndTheOldFile) {
  Merge("large=" + std::string(2 * kRoom, 'v') + "\n");
  EXPECT_EQ(_daemon.Stop(), 74);
  EXPECT_EQ(_directory.Read("data/user.ini"), "[A]\nx=1\n");
}

}  // namespace tavix::test
