// Which file is used when a snapshot can't be, and what becomes of it.

#include "programs/server/persistence/UserSettingsFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "programs/server/persistence/StartReads.h"
#include "tavix/osa/Exception.h"
#include "tests/programs/server/persistence/UserSettingsFilesTest.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::FoundUserSettings;
using daemon::UserSettingsFiles;
using daemon::UserSettingsRefused;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Reason = UserSettingsRefused::Reason;

TEST_F(UserFiles, BackupIsTheSnapshotBefore) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  EXPECT_THAT(_files.Get("user.ini.bak"), HasSubstr("x=1"));
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, "user.ini.bak"));
}

TEST_F(UserFiles, BackupIsUsedWhenTheSnapshotIsDamaged) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  Damage(kUserFile, "x=2");
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_TRUE(found.mustBeWritten);
  EXPECT_THAT(found.problems, ElementsAre("User settings are damaged: 'user.ini': it holds zeros; the backup "
                                          "'user.ini.bak' is used"));
}

TEST_F(UserFiles, BackupIsUsedWhenTheSnapshotIsEmpty) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  _files.Put(kUserFile, "");
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n");
}

TEST_F(UserFiles, WithoutABackupOfUseTheyBeginEmpty) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  Damage(kUserFile, "x=2");
  Damage("user.ini.bak", "x=1");
  const FoundUserSettings found = Find();
  EXPECT_TRUE(found.settings.IsEmpty());
  EXPECT_EQ(found.problems.size(), 2u);
  EXPECT_EQ(found.nextGeneration, 9u);
}

// If it were gone after a second crash, nobody would look for the backup any more.
TEST_F(UserFiles, DamagedSnapshotStaysUntilThereIsAnother) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  Damage(kUserFile, "x=2");
  Find();
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n");
}

TEST_F(UserFiles, DamagedSnapshotIsKeptAsideAndNeverTheBackup) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  Damage(kUserFile, "x=2");
  const std::string damaged = _files.Get(kUserFile);
  UserSettingsFiles files(_files, kUserFile);
  files.Find(true);
  files.ReplaceSnapshot(MakeSnapshot("[A]\nx=3\n", {9, 0, 0, kWritten}), kWritten);
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, StartsWith("user.ini.bad-"), "user.ini.bak"));
  EXPECT_EQ(_files.Get(_files.GetNames()[1]), damaged);
  EXPECT_THAT(_files.Get("user.ini.bak"), HasSubstr("x=1"));
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=3\n");
}

// Nobody would know that there had been anything until the next one takes the place.
TEST_F(UserFiles, DamagedSnapshotThatCanNeitherBeLinkedNorReadIsNotRenamed) {
  Save("[A]\nx=1\n", 7);
  Damage(kUserFile, "x=1");
  UserSettingsFiles files(_files, kUserFile);
  files.Find(true);
  _files.AddObserver([](const auto& operation) {
    if (operation.kind == MemoryFiles::Operation::Kind::kLink) throw osa::Exception("no links");
  });
  _files.FailReads(kUserFile, EIO, 1);
  EXPECT_THAT(files.ReplaceSnapshot(MakeSnapshot("[A]\nx=3\n", {9, 0, 0, kWritten}), kWritten),
              ElementsAre("The damaged 'user.ini' can't be kept: Input/output error"));
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile));
}

TEST_F(UserFiles, SnapshotThatCouldNotBeSyncedIsNeverTheBackup) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  UserSettingsFiles files(_files, kUserFile);
  _files.FailAfter(0, false);
  EXPECT_TRUE(files.Find(true).mustBeWritten);
  EXPECT_THAT(files.ReplaceSnapshot(MakeSnapshot("[A]\nx=3\n", {9, 0, 0, kWritten}), kWritten),
              ElementsAre("No backup is kept: 'user.ini' could not be synced"));
  EXPECT_THAT(_files.Get("user.ini.bak"), HasSubstr("x=1"));
  Save("[A]\nx=4\n", 10);
  EXPECT_THAT(_files.Get("user.ini.bak"), HasSubstr("x=3"));
}

TEST_F(UserFiles, ThatAreReadAfterAFewErrorsAreWhole) {
  Save("[A]\nx=1\n", 7);
  for (const int error : {EIO, EMFILE, ENOMEM, EACCES}) {
    _files.FailReads(kUserFile, error, 3);
    const FoundUserSettings found = Find();
    EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n") << error;
    EXPECT_THAT(found.problems, IsEmpty());
  }
}

// A later start may find the newest state.
TEST_F(UserFiles, ThatCanNotBeReadForAReasonThatIsNotTheDisksAreNotReplacedByTheBackup) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  Begin(8, {kSetsY})->Sync();
  const size_t operations = _files.CountOperations();
  for (const char* path : {kUserFile, "user.ini.journal"}) {
    _files.FailReads(path, EMFILE, 4);
    ExpectRefused(Reason::kNoResources, "Failed to read '" + std::string(path) + "': Too many open files");
  }
  _files.FailReads(kUserFile, ENOMEM, 4);
  ExpectRefused(Reason::kNoResources, "Failed to read 'user.ini': Cannot allocate memory");
  _files.FailReads(kUserFile, EACCES, 4);
  ExpectRefused(Reason::kNoRights, "Failed to read 'user.ini': Permission denied");
  EXPECT_EQ(_files.CountOperations(), operations);
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=2\n[B]\ny=2\n");
}

TEST_F(UserFiles, ThatTheDiskCanNotReadAreReplacedByTheBackup) {
  Save("[A]\nx=1\n", 7);
  Save("[A]\nx=2\n", 8);
  _files.FailReads(kUserFile, EIO, 4);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_THAT(found.problems, ElementsAre("User settings are damaged: 'user.ini': Input/output error; the backup "
                                          "'user.ini.bak' is used"));
}

}  // namespace tavix::test
