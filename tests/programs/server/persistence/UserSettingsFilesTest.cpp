#include "programs/server/persistence/UserSettingsFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tavix/osa/Exception.h"
#include "tests/programs/server/persistence/UserSettingsFilesTest.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::FoundUserSettings;
using daemon::UserSettingsFiles;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST_F(UserFiles, AreEmptyAtFirst) {
  const FoundUserSettings found = Find();
  EXPECT_TRUE(found.isAbsent);
  EXPECT_TRUE(found.settings.IsEmpty());
  EXPECT_EQ(found.snapshot.generation, 0u);
  EXPECT_EQ(found.nextGeneration, 1u);
  EXPECT_THAT(found.problems, IsEmpty());
}

TEST_F(UserFiles, HoldASnapshot) {
  Save("[A]\nx=1\n", 7);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_EQ(found.snapshot.generation, 7u);
  EXPECT_EQ(found.nextGeneration, 8u);
  EXPECT_THAT(found.problems, IsEmpty());
  EXPECT_FALSE(found.mustBeWritten);
}

TEST_F(UserFiles, MayHoldRestrictedGroupsUnlessTheTextShowsThatThereIsNone) {
  const std::pair<const char*, bool> cases[] = {{"[A]\nsecure=trusted\n", false},
                                                {"[A/Secure]\nx=1\n", true},
                                                {"[Trusted]\nx=1\n", true},
                                                {"[\\x53ecure]\nx=1\n", true}};
  for (const auto& [settings, expected] : cases) {
    Save(settings, 7);
    EXPECT_EQ(Find().mayHaveRestricted, expected) << settings;
  }
  Save("[A]\nx=1\n", 8);
  Begin(8, {{"", "[Secure]\ny=2\n"}})->Sync();
  EXPECT_TRUE(Find().mayHaveRestricted);
}

TEST_F(UserFiles, HoldTheChangesSinceTheSnapshot) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY, {"[A]\n", ""}})->Sync();
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[B]\ny=2\n");
  ASSERT_TRUE(found.journal);
  found.journal->Append(kSetsZ);
  EXPECT_EQ(TextOf(Find().settings), "[B]\ny=2\n[C]\nz=3\n");
}

TEST_F(UserFiles, HoldTheChangesOfAJournalThatWasNeverSynced) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY});
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n[B]\ny=2\n");
}

// What is found is shown; a power cut must not take it back.
TEST_F(UserFiles, AreOnTheDiskOnceTheyAreFound) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY});
  Find();
  const auto operations = _files.GetOperations();
  ASSERT_GE(operations.size(), 3u);
  const auto last = operations.end();
  EXPECT_EQ((last - 3)->kind, MemoryFiles::Operation::Kind::kSync);
  EXPECT_EQ((last - 2)->to, "user.ini.journal");
  EXPECT_EQ((last - 1)->kind, MemoryFiles::Operation::Kind::kSyncDirectory);
}

TEST_F(UserFiles, SnapshotTakesUpTheJournalBeforeItWhereItWasMade) {
  const auto journal = Begin(6, {kSetsY});
  journal->Sync();
  const uint64_t end = journal->GetEnd();
  journal->Append(kSetsZ);
  _files.Put(kUserFile, MakeSnapshot("[A]\nx=1\n", {7, 6, end, kWritten}));
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n[C]\nz=3\n");
}

// Changes that go on there would stand before those that the snapshot knows, and not count.
TEST_F(UserFiles, JournalThatEndsBeforeWhereTheSnapshotTakesItUpDoesNotGoOn) {
  Begin(6, {kSetsY})->Sync();
  _files.Put(kUserFile, MakeSnapshot("[A]\nx=1\n", {7, 6, 5000, kWritten}));
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_FALSE(found.journal);
  EXPECT_FALSE(found.mustBeWritten);
}

TEST_F(UserFiles, JournalOfAnEarlierSnapshotDoesNotCount) {
  Begin(6, {kSetsY})->Sync();
  Save("[A]\nx=1\n", 7);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_THAT(found.problems, IsEmpty());
}

TEST_F(UserFiles, NewJournalCountsWhenItHasMoreChangesThanTheOneBefore) {
  const auto before = Begin(6, {kSetsY});
  before->Sync();
  _files.Put(kUserFile, MakeSnapshot("[A]\nx=1\n", {7, 6, daemon::kJournalHeaderSize, kWritten}));
  Begin(7, {kSetsY, kSetsZ});
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n[B]\ny=2\n[C]\nz=3\n");
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, "user.ini.journal"));
}

TEST_F(UserFiles, TornChangeIsDroppedAndNoted) {
  Save("[A]\nx=1\n", 7);
  const auto journal = Begin(7, {kSetsY, kSetsZ});
  journal->Sync();
  Damage("user.ini.journal", "z=3");
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n[B]\ny=2\n");
  EXPECT_THAT(found.notices,
              ElementsAre("'user.ini.journal' ends with an unfinished change, which is dropped, 44 bytes"));
  EXPECT_THAT(Find().notices, IsEmpty());
}

// One bit must not take all that followed it without a trace.
TEST_F(UserFiles, DamagedJournalIsKeptBeforeWhatCanNotBeReadIsWipedOut) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY, kSetsZ, {"", "[D]\nd=4\n"}})->Sync();
  std::string journal = _files.Get("user.ini.journal");
  journal[journal.find("z=3")] ^= 1;
  _files.Put("user.ini.journal", journal);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n[B]\ny=2\n");
  ASSERT_EQ(found.problems.size(), 1u);
  EXPECT_THAT(found.problems[0],
              StartsWith("'user.ini.journal' is damaged behind byte 172: changes are lost, 88 bytes; "
                         "it is kept as 'user.ini.journal.bad-"));
  const std::vector<std::string> names = _files.GetNames();
  ASSERT_THAT(names, ElementsAre(kUserFile, "user.ini.journal", StartsWith("user.ini.journal.bad-")));
  EXPECT_EQ(_files.Get(names[2]), journal.substr(0, journal.find_last_not_of('\0') + 1));
  EXPECT_THAT(Find().problems, IsEmpty());
}

TEST_F(UserFiles, DamagedJournalThatCanNotBeKeptIsNotWipedOut) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY, kSetsZ})->Sync();
  std::string journal = _files.Get("user.ini.journal");
  journal[journal.find("z=3")] ^= 1;
  _files.Put("user.ini.journal", journal);
  _files.FailAfter(0, true);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n[B]\ny=2\n");
  EXPECT_THAT(found.problems, ElementsAre(HasSubstr("; it can't be kept: Failed to create ")));
  EXPECT_TRUE(found.mustBeWritten);
  EXPECT_EQ(_files.Get("user.ini.journal"), journal);
}

// What the power left of changes that were made without durability is neither an error nor worth keeping.
TEST_F(UserFiles, JournalWhoseBeginningWasNeverWrittenIsNone) {
  Save("[A]\nx=1\n", 7);
  for (const std::string& bytes : {std::string(), std::string(70'000, '\0'), std::string("# tavix-settings jour")}) {
    _files.Put("user.ini.journal", bytes);
    const FoundUserSettings found = Find();
    EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
    EXPECT_THAT(found.problems, IsEmpty());
    EXPECT_FALSE(found.journal);
  }
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, "user.ini.journal"));
}

// A device that gets another one's file, of the same generation, must not show its former owner's values over it.
TEST_F(UserFiles, JournalOfAnotherSnapshotOfTheSameGenerationIsPutAside) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY})->Sync();
  _files.Put(kUserFile, MakeSnapshot("[Factory]\n", {7, 0, 0, kWritten}));
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[Factory]\n");
  EXPECT_THAT(found.problems, ElementsAre(HasSubstr("belong to no user settings that are there; it is kept as ")));
}

TEST_F(UserFiles, JournalThatHasNoChangeWhereTheSnapshotTakesItUpIsPutAside) {
  Begin(6, {kSetsY, kSetsZ})->Sync();
  _files.Put(kUserFile, MakeSnapshot("[A]\nx=1\n", {7, 6, daemon::kJournalHeaderSize + 3, kWritten}));
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
}

// It was begun beside one that went on meanwhile.
TEST_F(UserFiles, NewJournalThatIsNotWholeDoesNotCount) {
  const auto before = Begin(6, {kSetsY});
  before->Sync();
  before->Append(kSetsZ);
  _files.Put(kUserFile, MakeSnapshot("[A]\nx=1\n", {7, 6, daemon::kJournalHeaderSize, kWritten}));
  Begin(7, {kSetsY, kSetsZ});
  Damage("user.ini.journal.new", "z=3");
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n[B]\ny=2\n[C]\nz=3\n");
}

// Somebody may have put it there a moment ago.
TEST_F(UserFiles, ForeignFileIsOnTheDiskBeforeItIsShown) {
  _files.Put(kUserFile, "[A]\nx=1\n");
  Find();
  const auto operations = _files.GetOperations();
  ASSERT_EQ(operations.size(), 2u);
  EXPECT_EQ(operations[0].kind, MemoryFiles::Operation::Kind::kSync);
  EXPECT_EQ(operations[0].path, kUserFile);
  EXPECT_EQ(operations[1].kind, MemoryFiles::Operation::Kind::kSyncDirectory);
}

TEST_F(UserFiles, LeftoversOfAnInterruptedSaveAreRemovedAtTheStart) {
  Save("[A]\nx=1\n", 7);
  for (const char* name : {"user.ini.new", "user.ini.bak.new", "user.ini.journal.new", "user.ini.trials.new"})
    _files.Put(name, "[A");
  Find();
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile));
}

// The power went before it got its name.
TEST_F(UserFiles, NewSnapshotIsUsedWhenThereIsNoOther) {
  _files.Put("user.ini.new", MakeSnapshot("[A]\nx=1\n", {8, 0, 0, kWritten}));
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_TRUE(found.mustBeWritten);
  EXPECT_THAT(found.notices, ElementsAre("'user.ini' is missing; 'user.ini.new', which was to be it, is used"));
  _files.Put("user.ini.new", "# User settings");
  EXPECT_TRUE(Find().isAbsent);
}

TEST_F(UserFiles, HalfATextIsNotSaved) {
  Save("[A]\nx=1\n", 7);
  const std::string text = MakeSnapshot("[A]\nx=2\n", {8, 0, 0, kWritten});
  UserSettingsFiles files(_files, kUserFile);
  EXPECT_THROW(files.ReplaceSnapshot(text.substr(0, text.size() / 2), kWritten), osa::Exception);
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n");
}

// Until the rename nobody would know that there had been anything.
TEST_F(UserFiles, DamagedSnapshotIsCopiedWhereThereAreNoLinks) {
  Save("[A]\nx=1\n", 7);
  Damage(kUserFile, "x=1");
  UserSettingsFiles files(_files, kUserFile);
  files.Find(true);
  _files.AddObserver([this](const auto& operation) {
    if (operation.kind == MemoryFiles::Operation::Kind::kLink) throw osa::Exception("no links");
    EXPECT_THAT(_files.GetNames(), Contains(kUserFile));
  });
  files.ReplaceSnapshot(MakeSnapshot("[A]\nx=3\n", {9, 0, 0, kWritten}), kWritten);
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, StartsWith("user.ini.bad-")));
}

TEST_F(UserFiles, JournalWithoutItsSnapshotIsPutAsideAndItsGenerationAvoided) {
  Begin(9, {kSetsY})->Sync();
  Save("[A]\nx=1\n", 7);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n");
  EXPECT_EQ(found.nextGeneration, 10u);
  ASSERT_EQ(found.problems.size(), 1u);
  EXPECT_THAT(found.problems[0], HasSubstr("belong to no user settings that are there; it is kept as "));
  EXPECT_THAT(_files.GetNames(), Contains(StartsWith("user.ini.journal.bad-")));
  EXPECT_THAT(Find().problems, IsEmpty());
}

TEST_F(UserFiles, LookingAtThemTouchesNothing) {
  Save("[A]\nx=1\n", 7);
  Begin(9, {kSetsY})->Sync();
  Damage(kUserFile, "x=1");
  const size_t operations = _files.CountOperations();
  EXPECT_EQ(UserSettingsFiles(_files, kUserFile).Find(false).problems.size(), 2u);
  EXPECT_EQ(_files.CountOperations(), operations);
}

TEST_F(UserFiles, ThatCanNotBeWrittenAreReadAllTheSame) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY})->Sync();
  _files.FailAfter(0, true);
  const FoundUserSettings found = Find();
  EXPECT_EQ(TextOf(found.settings), "[A]\nx=1\n[B]\ny=2\n");
  EXPECT_THAT(found.problems, ElementsAre("Failed to open 'user.ini.journal': No space left on device"));
  EXPECT_TRUE(found.mustBeWritten);
}

TEST_F(UserFiles, AfterAFailureAnywhereTheOldSnapshotCountsOrTheNewOne) {
  for (size_t failing = 0; failing < kOperationsOfASnapshot; ++failing) {
    MemoryFiles files;
    UserSettingsFiles user(files, kUserFile);
    user.ReplaceSnapshot(MakeSnapshot("[A]\nx=1\n", {1, 0, 0, kWritten}), kWritten);
    files.FailAfter(failing, false);
    bool failed = false;
    try {
      user.ReplaceSnapshot(MakeSnapshot("[A]\nx=2\n", {2, 0, 0, kWritten}), kWritten);
    } catch (const osa::Exception&) {
      failed = true;
    }
    const FoundUserSettings found = UserSettingsFiles(files, kUserFile).Find(true);
    EXPECT_THAT(TextOf(found.settings), testing::AnyOf("[A]\nx=2\n", failed ? "[A]\nx=1\n" : "")) << failing;
    EXPECT_THAT(found.problems, IsEmpty());
    EXPECT_THAT(files.GetNames(), Not(Contains("user.ini.new")));
  }
}

TEST_F(UserFiles, ThatHaveNoTimesOfTheirOwnAreSavedAllTheSame) {
  _files.FailAfter(3, false);
  Save("[A]\nx=1\n", 7);
  EXPECT_EQ(TextOf(Find().settings), "[A]\nx=1\n");
}

TEST_F(UserFiles, WithoutJournalsAreOneFile) {
  Save("[A]\nx=1\n", 7);
  Begin(7, {kSetsY})->Sync();
  Begin(8, {kSetsY});
  UserSettingsFiles(_files, kUserFile).RemoveJournals();
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile));
}

}  // namespace tavix::test
