#include "programs/server/history/RollbackWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/programs/server/history/HistoryServer.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/RecordingCallback.h"

// The requests `rollback` and `test-rollback`, as a client sends them.

namespace tavix::test {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string kRecord = std::string("[") + settings::server::SettingsManager::kDeletedGroups + "]";
constexpr char kNothing[] = "data\n.\n";
const std::string kHistoryFile = daemon::HistoryFile::PathOf(kUserFile);

struct RollbackRequest : testing::Test {
  HistoryServer server{"[Video]\nfps=25\n[Network/A]\nmtu=1500\n"};

  void Merge(const std::string& settings) { server.Serve("merge\n" + settings + ".\n"); }
  void Overwrite(const std::string& group) { server.Serve("overwrite\n" + group + "\n.\n.\n"); }
  std::string GetUser() { return UserSettingsOf(server.store.GetManager()); }
  std::string GetAll() { return AllSettingsOf(server.store.GetManager()); }
};

}  // namespace

TEST_F(RollbackRequest, BringsTheUserSettingsBackAndShowsTheChange) {
  Merge("[A]\nx=1\ny=1\n");
  Merge("[A]\nx=2\nz=3\n");
  const std::string change =
      "data\n[0000000003]\nby=local - - -\ncommand=rollback\nis [A]x=1\nwas [A]x=2\nwas [A]z=3\n";
  EXPECT_EQ(server.Serve("rollback 1\n"), change + ".\n");
  EXPECT_EQ(GetUser(), "[A]\nx=1\ny=1\n");
  EXPECT_EQ(server.Serve("history - 1\n"), change + "[scanned]\nmore=true\nnext=3\n.\n");
}

TEST_F(RollbackRequest, IsAChangeThatCanBeRolledBack) {
  Merge("[A]\nx=1\n");
  Merge("[B]\n");
  server.Serve("rollback 0\n");
  EXPECT_EQ(GetUser(), "");
  server.Serve("rollback 2\n");
  EXPECT_EQ(GetUser(), "[A]\nx=1\n[B]\n");
}

TEST_F(RollbackRequest, WithoutADifferenceChangesNothing) {
  Merge("[A]\nx=1\n");
  EXPECT_EQ(server.Serve("rollback 1\n"), kNothing);
  Merge("[A]\nx=2\n");
  Merge("[A]\nx=1\n");
  EXPECT_EQ(server.Serve("rollback 1\ntest-rollback 1\n"), std::string(kNothing) + kNothing);
  EXPECT_EQ(server.store.GetHistory()->GetRange().last, 3u);
}

TEST_F(RollbackRequest, IsShownByItsTestWhichChangesNothing) {
  Merge("[A]\nx=1\n");
  Merge("[A]\nx=2\n");
  const std::string shown = server.Serve("note why\ntest-rollback 1\n");
  EXPECT_EQ(shown, "data\n[0000000003]\nby=local - - -\ncommand=rollback\nis [A]x=1\nwas [A]x=2\n.\n");
  EXPECT_EQ(GetUser(), "[A]\nx=2\n");
  EXPECT_EQ(server.Serve("rollback 1\n"), shown);
}

TEST_F(RollbackRequest, UsesTheNoteUp) {
  Merge("[A]\nx=1\n");
  EXPECT_THAT(server.Serve("note oops\nrollback 0\n"), HasSubstr("command=rollback\nnote=oops\nwas [A]x=1\n"));
  EXPECT_THAT(server.Serve("history - 1\n"), HasSubstr("note=oops\n"));
}

TEST_F(RollbackRequest, BringsDeletedGroupsBackAndDeletesThemAgain) {
  Overwrite("Video");
  Overwrite("Network/*");
  EXPECT_EQ(GetAll(), "");
  server.Serve("rollback 1\n");
  EXPECT_EQ(GetAll(), "[Network/A]\nmtu=1500\n");
  EXPECT_EQ(GetUser(), kRecord + "\nVideo=Video\n");
  server.Serve("rollback 0\n");
  EXPECT_EQ(GetUser(), "");
  EXPECT_EQ(GetAll(), "[Network/A]\nmtu=1500\n[Video]\nfps=25\n");
  server.Serve("rollback 2\n");
  EXPECT_EQ(GetAll(), "");
}

TEST_F(RollbackRequest, BringsGroupsWithoutKeysBack) {
  Merge("[A]\n[B]\nx=1\n");
  server.Serve("amend\n.\n.\n[A]\nx=1\n.\n[B]\nx=\n.\n.\n");
  server.Serve("rollback 1\n");
  EXPECT_EQ(GetUser(), "[A]\n[B]\nx=1\n");
  server.Serve("rollback 0\n");
  EXPECT_EQ(GetUser(), "");
}

TEST_F(RollbackRequest, WithAPatternTakesMatchingGroupsAlone) {
  Merge("[Network/A]\nx=1\n[Video]\nx=1\n");
  Overwrite("Network/A");
  Overwrite("Video");
  EXPECT_EQ(server.Serve("rollback 1  Network/* \n"),
            "data\n[0000000004]\nby=local - - -\ncommand=rollback\nis [Network/A]x=1\nwas " + kRecord +
                "Network/A=Network/A\n.\n");
  EXPECT_EQ(GetUser(), "[Network/A]\nx=1\n" + kRecord + "\nVideo=Video\n");
  EXPECT_EQ(GetAll(), "[Network/A]\nmtu=1500\nx=1\n");
}

TEST_F(RollbackRequest, WithAPatternLeavesARecordedPatternThatIsSpelledOtherwise) {
  Overwrite("Net*");
  EXPECT_EQ(server.Serve("rollback 0 Network/A\n"), kNothing);
  EXPECT_THAT(server.Serve("rollback 0 Net*\n"), HasSubstr("was " + kRecord + "Net*=Net*\n"));
  EXPECT_EQ(GetUser(), "");
}

TEST_F(RollbackRequest, WithAPatternFindsMembersOfTheRecordUnderOtherKeys) {
  Merge(kRecord + "\n1=Video\n");
  server.Serve("amend\n.\n.\n.\n[Video]\n.\n.\n");
  EXPECT_EQ(GetUser(), "");
  server.Serve("rollback 1 Video\n");
  EXPECT_EQ(GetUser(), kRecord + "\n1=Video\n");
}

TEST_F(RollbackRequest, OfARestrictedGroupChangesNothing) {
  Merge("[A]\nx=1\n");
  EXPECT_EQ(server.Serve("rollback 0 Secure*\n"), kNothing);
}

TEST_F(RollbackRequest, BringsACheckpointBack) {
  Merge("[A]\nx=1\n[B]\n");
  Overwrite("Video");
  server.Serve("checkpoint good\n");
  Merge("[A]\nx=2\ny=2\n[C]\nx=1\n[B]\nz=1\n");
  server.Serve("amend\n.\n.\n.\n[Video]\n.\n.\n");
  const std::string change = "data\n[0000000005]\nby=local - - -\ncommand=rollback\nis [A]x=1\nis [B]=\nis " + kRecord +
                             "Video=Video\nwas [A]x=2\nwas [A]y=2\nwas [B]z=1\nwas [C]x=1\n.\n";
  EXPECT_EQ(server.Serve("test-rollback @good\n"), change);
  EXPECT_EQ(server.Serve("rollback @good\n"), change);
  EXPECT_EQ(GetUser(), "[A]\nx=1\n[B]\n" + kRecord + "\nVideo=Video\n");
  EXPECT_EQ(server.Serve("rollback @good\n"), kNothing);
}

TEST_F(RollbackRequest, WithAPatternBringsAPartOfACheckpointBack) {
  Merge("[A]\nx=1\n[B]\nx=1\n");
  Overwrite("Video");
  server.Serve("checkpoint good\nrollback 0\nrollback @good A\n");
  EXPECT_EQ(GetUser(), "[A]\nx=1\n");
  server.Serve("rollback @good Vid*\n");
  EXPECT_EQ(GetUser(), "[A]\nx=1\n" + kRecord + "\nVideo=Video\n");
}

TEST_F(RollbackRequest, OfManySettingsIsMadeInParts) {
  std::string settings;
  for (int i = 0; i < 700; ++i) settings += "[G/" + std::to_string(i) + "]\nx=" + std::to_string(i) + "\ny=1\nz=1\n";
  Merge(settings);
  const std::string before = GetUser();
  server.Serve("checkpoint good\nrollback 0\n");
  EXPECT_EQ(GetUser(), "");
  server.Serve("rollback 1\n");
  EXPECT_EQ(GetUser(), before);
  server.Serve("rollback 0\nrollback @good\n");
  EXPECT_EQ(GetUser(), before);
}

TEST_F(RollbackRequest, LeavesWhatIsNotToBeKept) {
  Merge("[A]\nx=1\n");
  server.Serve("merge nopersist\n[B]\nx=9\n.\n");
  Merge("[A]\nx=2\n");
  server.Serve("rollback 0\n");
  EXPECT_EQ(GetAll(), "[B]\nx=9\n[Network/A]\nmtu=1500\n[Video]\nfps=25\n");
}

TEST_F(RollbackRequest, AnnouncesTheGroupsThatReadersSeeOtherwise) {
  Merge("[Network/A]\nmtu=1500\n[A]\nx=1\n");
  Merge("[A]\nx=2\n[B]\nx=1\n");
  RecordingCallback callback;
  server.store.GetManager().Subscribe(&callback, "*");
  server.Serve("test-rollback 0\nrollback 0\nrollback 0\n");
  EXPECT_THAT(callback.TakeChanges(), ElementsAre(Change{{"A", "B"}, ""}));
  server.Serve("rollback 2\n");
  EXPECT_THAT(callback.TakeChanges(), ElementsAre(Change{{"A", "B"}, "[A]\nx=2\n[B]\nx=1\n"}));
  server.store.GetManager().Unsubscribe(&callback);
}

TEST_F(RollbackRequest, IsRefusedForWhatIsNoGoal) {
  EXPECT_EQ(server.Serve("rollback x\n"), "refused\n'x' is neither a revision nor \"@\" and a checkpoint\n");
  EXPECT_EQ(server.Serve("test-rollback\n"), "refused\n'' is neither a revision nor \"@\" and a checkpoint\n");
  EXPECT_EQ(server.Serve("rollback 1\n"), "refused\nrevision 1 is not there: the last is 0\n");
  EXPECT_EQ(server.Serve("rollback @good\n"), "refused\nno checkpoint is named 'good'\n");
  EXPECT_THAT(server.Serve("rollback @\n"), HasSubstr("'' is no name of a checkpoint"));
  server.Serve("checkpoint good\n");
  server.files.Put("user.ini.checkpoint.good", "");
  EXPECT_THAT(server.Serve("rollback @good\n"), HasSubstr("the checkpoint 'good' can't be read"));
}

TEST_F(RollbackRequest, ThatIsRefusedLeavesTheReason) {
  EXPECT_THAT(server.Serve("rollback x\ninfo refused\n"), HasSubstr("reason=rollback: 'x' is neither a revision"));
}

TEST(RollbackOfAShortHistory, IsRefusedForWhatIsNotKept) {
  HistoryServer server("", 16 * 1024);
  for (int value = 1; value <= 200; ++value)
    server.Serve("merge\n[A]\nx=" + std::to_string(value) + std::string(1000, '.') + "\n.\n");
  EXPECT_THAT(server.Serve("rollback 3\n"),
              testing::MatchesRegex("refused\nrevision 3 is not kept: the oldest is 1[0-9][0-9].*\n"));
}

TEST(RollbackOverAGap, IsRefusedWithTheRevisionBehindIt) {
  HistoryServer server("", 16 * 1024);
  server.Serve("merge\n[A]\nx=1\n.\n");
  server.Serve("merge\n[A]\nx=" + std::string(9 * 1024, 'x') + "\n.\n");
  server.Serve("merge\n[A]\nx=3\n.\n");
  server.Serve("merge\n[A]\nx=4\n.\n");
  EXPECT_EQ(
      server.Serve("rollback 1\n"),
      "refused\nrevision 1 is not kept: the oldest is 3, as changes up to that one are missing from the history\n");
  EXPECT_THAT(server.Serve("rollback 3\n"), StartsWith("data\n"));
  EXPECT_EQ(UserSettingsOf(server.store.GetManager()), "[A]\nx=3\n");
}

namespace {

// The files of daemons that made a change each, and ended: x=1 to x=4. Behind the next end but one, an entry stands in
// the file of the history alone.
MemoryFiles::Image MakeFiles() {
  MemoryFiles::Image image;
  for (const char* value : {"1", "2", "3", "4"}) {
    HistoryServer server("", kHistoryBytes, image);
    server.Serve(std::string("merge\n[A]\nx=") + value + "\n.\n");
    EXPECT_TRUE(server.store.Finish());
    image = server.files.GetImage();
  }
  return image;
}

struct RollbackFromFiles : testing::Test {
  HistoryServer server{"", kHistoryBytes, MakeFiles()};

  std::string GetUser() { return UserSettingsOf(server.store.GetManager()); }
};

}  // namespace

TEST_F(RollbackFromFiles, LeadsToWhatWasBeforeTheDaemonWasStarted) {
  server.Serve("merge\n[B]\nx=1\n.\n");
  for (const char* value : {"2", "1", "3"}) {
    EXPECT_THAT(server.Serve(std::string("rollback ") + value + "\n"), StartsWith("data\n[00000000"));
    EXPECT_EQ(GetUser(), std::string("[A]\nx=") + value + "\n");
  }
  server.Serve("rollback 0\n");
  EXPECT_EQ(GetUser(), "");
}

TEST_F(RollbackFromFiles, IsRefusedWhenTheDiskFails) {
  server.files.FailReads(kHistoryFile, EIO, 1);
  EXPECT_THAT(server.Serve("rollback 2\n"), StartsWith("refused\nthe history can't be read: Failed to read"));
  EXPECT_EQ(GetUser(), "[A]\nx=4\n");
  EXPECT_THAT(server.Serve("rollback 2\n"), StartsWith("data\n"));
}

TEST_F(RollbackFromFiles, IsRefusedWhenAnEntryIsDamagedMeanwhile) {
  std::string bytes = server.files.Get(kHistoryFile);
  bytes[bytes.find("#+ [A]x=3") + 8] = '7';
  server.files.Put(kHistoryFile, bytes);
  EXPECT_EQ(server.Serve("rollback 1\n"),
            "refused\nthe history can't be read: an entry behind revision 1 is damaged or missing\n");
  EXPECT_THAT(server.Serve("rollback 3\n"), StartsWith("data\n"));
  EXPECT_EQ(GetUser(), "[A]\nx=3\n");
}

TEST_F(RollbackFromFiles, IsRefusedWhenTheFileIsCutMeanwhile) {
  for (const size_t size : {size_t{0}, size_t{10}, server.files.Get(kHistoryFile).size() - 1}) {
    MemoryFiles::Image image = MakeFiles();
    HistoryServer other("", kHistoryBytes, image);
    other.files.Put(kHistoryFile, other.files.Get(kHistoryFile).substr(0, size));
    EXPECT_THAT(other.Serve("rollback 1\n"), StartsWith("refused\nthe history can't be read: "));
    EXPECT_EQ(UserSettingsOf(other.store.GetManager()), "[A]\nx=4\n");
  }
}

TEST(RollbackFromDamagedFiles, IsRefusedBehindTheDamage) {
  MemoryFiles::Image image = MakeFiles();
  std::string& bytes = image[kHistoryFile].bytes;
  bytes[bytes.find("#+ [A]x=2") + 8] = '7';
  HistoryServer server("", kHistoryBytes, image);
  EXPECT_EQ(
      server.Serve("rollback 1\n"),
      "refused\nrevision 1 is not kept: the oldest is 2, as changes up to that one are missing from the history\n");
  EXPECT_THAT(server.Serve("rollback 2\n"), StartsWith("data\n"));
}

TEST_F(RollbackRequest, IsRefusedWhenTheStoreIsFull) {
  Merge("[A]\nx=" + std::string(1000, 'x') + "\n");
  Overwrite("A");
  server.store.GetManager().SetMaxBytes(server.store.GetManager().GetApproximateBytes());
  EXPECT_THAT(server.Serve("rollback 1\ninfo refused\n"),
              testing::MatchesRegex("refused\nthe store holds about .*\nRefused\n-------\nreason=rollback: the store "
                                    "holds about .*\n\n"));
  EXPECT_THAT(server.Serve("rollback 0\n"), StartsWith("data\n"));
}

TEST_F(RollbackRequest, IsRefusedWhenTheOldValuesTakeTooMuchMemory) {
  Merge("[A]\nx=" + std::string(HistoryServer::kMaxOldBytes, 'x') + "\n");
  Overwrite("A");
  EXPECT_EQ(server.Serve("rollback 1\n"),
            "refused\nwhat has changed since revision 1 takes more memory than all settings may\n");
}

TEST_F(RollbackRequest, IsCarriedOutThoughItsClientHasLeftAndItsTestIsNot) {
  const auto* const command = server.rollbackWords.Find("rollback");
  ASSERT_NE(command, nullptr);
  EXPECT_TRUE(command->isLong);
  EXPECT_TRUE(command->isChange);
  EXPECT_FALSE(command->isForClientOnly);
  const auto* const test = server.rollbackWords.Find("test-rollback");
  ASSERT_NE(test, nullptr);
  EXPECT_TRUE(test->isLong);
  EXPECT_FALSE(test->isChange);
  EXPECT_TRUE(test->isForClientOnly);
  EXPECT_EQ(server.rollbackWords.Find("rollbac"), nullptr);
}

}  // namespace tavix::test
