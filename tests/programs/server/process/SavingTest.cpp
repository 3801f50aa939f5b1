#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"

// A disk that can't take a change for a while.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr unsigned long kRoom = 192 * 1024;  // enough for a small journal, which is filled ahead

// A daemon whose user settings lie in a directory of their own, with one value saved. The journal has not begun.
class Saving : public testing::Test {
 protected:
  explicit Saving(const ProcessLimits& limits = {})
      : _daemon(_directory, {"--user-settings", UserFile()}, limits), _client(_daemon.GetPort()) {
    Merge("x=1\n");
    EXPECT_EQ(FindSaved(), "[A]\nx=1\n");
  }

  // Returns when the change was saved, or could not be.
  void Merge(const std::string& settings) {
    _client.Send("merge\n[A]\n" + settings + ".\n");
    _client.AwaitHandled();
  }

  std::string FindSaved() const { return FindSavedText(_directory, "data/user.ini"); }

  std::string UserFile() {
    fs::create_directories(_directory.Path("data"));
    return "data/user.ini";
  }

  void TakeTheDirectoryAway() { fs::rename(_directory.Path("data"), _directory.Path("away")); }
  void BringTheDirectoryBack() { fs::rename(_directory.Path("away"), _directory.Path("data")); }

  void AwaitSavedAgain() { _daemon.AwaitErrors("WARNING UserSettings: 'data/user.ini' is saved again\n"); }

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

constexpr char kKept[] = "; changes are kept in memory and saved as soon as that is possible\n";
constexpr char kNoDirectory[] =
    "ERROR UserSettings: Failed to create 'data/user.ini.journal.new': No such file or directory";

}  // namespace

TEST_F(Saving, WithoutItsDirectoryTheDaemonServesOnAndSavesAllWhenTheDirectoryIsBack) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  _daemon.AwaitErrors(std::string(kNoDirectory) + kKept);
  EXPECT_EQ(_client.Get("A\n"), "data\n[A]\nx=2\n.\n");
  EXPECT_EQ(FindSavedText(_directory, "away/user.ini"), "[A]\nx=1\n");
  BringTheDirectoryBack();
  Merge("y=3\n");
  AwaitSavedAgain();
  EXPECT_EQ(FindSaved(), "[A]\nx=2\ny=3\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(Saving, IsTriedAgainThoughNothingChanges) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  _daemon.AwaitErrors("WARNING UserSettings: Failed to create 'data/user.ini.new': No such file or directory; it is");
  BringTheDirectoryBack();
  AwaitSavedAgain();
  EXPECT_EQ(FindSaved(), "[A]\nx=2\n");
}

TEST_F(Saving, WhenTheNewFilesCanNotBeMadeTheOldOneStaysWhole) {
  for (const char* name : {"data/user.ini.new", "data/user.ini.journal.new"})
    fs::create_directories(_directory.Path(name) + "/full");
  Merge("x=2\n");
  _daemon.AwaitErrors("ERROR UserSettings: Failed to remove 'data/user.ini.journal.new': Is a directory; ");
  _daemon.AwaitErrors("WARNING UserSettings: Failed to remove 'data/user.ini.new': Is a directory; it is tried again");
  EXPECT_EQ(ReadSnapshot(_directory, "data/user.ini"), "[A]\nx=1\n");
  for (const char* name : {"data/user.ini.new", "data/user.ini.journal.new"}) fs::remove_all(_directory.Path(name));
  AwaitSavedAgain();
  EXPECT_EQ(FindSaved(), "[A]\nx=2\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(Saving, WhatAnInterruptedSaveLeftIsReplaced) {
  for (const char* name : {"data/user.ini.new", "data/user.ini.journal.new", "data/user.ini.bak.new"})
    _directory.Write(name, "[A");
  Merge("x=2\n");
  EXPECT_EQ(FindSaved(), "[A]\nx=2\n");
  EXPECT_EQ(_daemon.Stop(), 0);
  EXPECT_EQ(ReadSnapshot(_directory, "data/user.ini"), "[A]\nx=2\n");
  for (const char* name : {"data/user.ini.new", "data/user.ini.journal.new", "data/user.ini.bak.new"})
    EXPECT_FALSE(_directory.Has(name)) << name;
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
  EXPECT_EQ(ReadSnapshot(_directory, "data/user.ini"), "[A]\nx=2\n");
}

TEST_F(Saving, ChangeThatCanNotBeSavedAtTheEndEitherEndsTheDaemonWithStatus74) {
  TakeTheDirectoryAway();
  Merge("x=2\n");
  EXPECT_EQ(_daemon.Stop(), 74);
  EXPECT_THAT(_daemon.GetErrors(), testing::HasSubstr(kNoDirectory));
  EXPECT_EQ(ReadSnapshot(_directory, "away/user.ini"), "[A]\nx=1\n");
}

TEST_F(Saving, ChangeThatIsNotToBeSavedDoesNotTry) {
  TakeTheDirectoryAway();
  _client.Send("merge nopersist\n[A]\nx=2\n.\n");
  _client.AwaitHandled();
  EXPECT_EQ(_daemon.Stop(), 0);
  EXPECT_EQ(_daemon.GetErrors(), "");
}

TEST_F(Saving, ChangeOfNothingDoesNotTry) {
  TakeTheDirectoryAway();
  Merge("x=1\n");
  EXPECT_EQ(_daemon.Stop(), 0);
  EXPECT_EQ(_daemon.GetErrors(), "");
}

TEST_F(SavingOnAFullDisk, WhatWasSavedStaysWholeAndTheRestFollowsWhenThereIsRoom) {
  const std::string large(2 * kRoom, 'v');
  Merge("large=" + large + "\n");
  _daemon.AwaitErrors("ERROR UserSettings: Failed to write 'data/user.ini.journal.new': File too large; ");
  EXPECT_EQ(FindSaved(), "[A]\nx=1\n");
  EXPECT_EQ(_client.Get("A\n"), "data\n[A]\nlarge=" + large + "\nx=1\n.\n");
  MakeRoom();
  AwaitSavedAgain();
  Merge("y=3\n");
  EXPECT_EQ(FindSaved(), "[A]\nlarge=" + large + "\nx=1\ny=3\n");
  EXPECT_EQ(_daemon.Stop(), 0);
}

TEST_F(SavingOnAFullDisk, NoRoomAtTheEndEitherIsStatus74AndTheOldFile) {
  Merge("large=" + std::string(2 * kRoom, 'v') + "\n");
  EXPECT_EQ(_daemon.Stop(), 74);
  EXPECT_EQ(ReadSnapshot(_directory, "data/user.ini"), "[A]\nx=1\n");
}

}  // namespace tavix::test
