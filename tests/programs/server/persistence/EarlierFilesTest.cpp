#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <string>

#include "tests/programs/server/persistence/EarlierReader.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/MemoryFiles.h"

// Files as a daemon left them that knew neither history nor trials, byte by byte.

namespace tavix::test {

namespace {

constexpr char kJournal[] = "user.ini.journal";

// After an ordered end.
constexpr char kEarlierSettings[] =
    "# User settings, kept by tavix-settings-server. Stop it before you edit them; keep this line and the last.\n"
    "[A]\n"
    "x=1\n"
    "[B]\n"
    "y=1\n"
    "# End of user settings: generation 1, journal 0 to 0, written 1795385264000000000, crc32 480e2836\n";

// A merge, and two groups that were overwritten; then it crashed.
const std::string kEarlierJournal =
    "# tavix-settings journal 1, follows 0000000000000001 480e2836, whole from 00000000000000b0, 4ae80f7b" +
    std::string(27, ' ') +
    "\n"
    "# change 00000000 0000000c ca4498bf\n"
    "[A]\n"
    "x=2\n"
    "z=3\n"
    "# change 00000004 00000027 a8a0530f\n"
    "[D]\n"
    "[TavixSettings/Data/DeletedGroups]\n"
    "D=D\n"
    "# change 00000000 00000033 af9f63ab\n"
    "[B]\n"
    "y=2\n"
    "[TavixSettings/Data/DeletedGroups]\n"
    "B=B\n"
    "D=D\n";

struct EarlierFiles : testing::Test {
  EarlierFiles() { files.Put(kUserFile, kEarlierSettings); }
  MemoryFiles files;
};

}  // namespace

TEST_F(EarlierFiles, AreReadAndStayAsTheyAreUntilAChange) {
  TrialStore store(files, kHistoryBytes);
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n[B]\ny=1\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(files.Get(kUserFile), kEarlierSettings);
}

TEST_F(EarlierFiles, OfACrashAreReadAndGoOnWithAHistoryAndTrials) {
  constexpr char kSettings[] = "[A]\nx=2\nz=3\n[B]\ny=2\n[TavixSettings/Data/DeletedGroups]\nB=B\nD=D\n";
  files.Put(kJournal, kEarlierJournal);
  {
    TrialStore store(files, kHistoryBytes);
    EXPECT_EQ(store.GetUser(), kSettings);
    store.Try("60 t", "[A]\nx=3\n");
    store.AwaitDurable();
    store.Crash();
  }
  EXPECT_EQ(files.Get(kJournal).find(kEarlierJournal + "# change "), 0u);
  TrialStore store(files, kHistoryBytes);
  EXPECT_EQ(store.GetUser(), kSettings);
  EXPECT_EQ(store.GetStore().GetHistory()->GetRange().oldest, 0u);
  EXPECT_EQ(store.GetStore().GetHistory()->GetRange().last, 2u);
}

// The other way round. Of its own files the earlier reader is right, too.
TEST_F(EarlierFiles, AreReadByTheRulesOfTheirTime) {
  files.Put(kJournal, kEarlierJournal);
  EXPECT_EQ(TextOf(EarlierReader(files).GetSettings()),
            "[A]\nx=2\nz=3\n[B]\ny=2\n[TavixSettings/Data/DeletedGroups]\nB=B\nD=D\n");
}

TEST_F(EarlierFiles, RulesReadTodaysOfACrashAndOfAnOrderedEnd) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  RandomChanges changes(seed);
  size_t records = 0;
  for (int life = 0; life < 8; ++life) {
    std::string user;
    {
      TrialStore store(files, kHistoryBytes);
      for (int change = 0; change < 20; ++change) {
        const std::string trial = change % 5 == 0 ? "60 t" + std::to_string(change) : "";
        changes.MakeOne(store.GetStore().GetManager(), {TrialStore::kClient, "merge", "a note", trial});
        if (life % 3 == 0 && change == 10) store.MakeSnapshotDue();
      }
      store.AwaitDurable();
      EXPECT_TRUE(life % 2 != 0 || store.Finish());
      user = store.GetUser();
      store.Crash();
    }
    const EarlierReader found(files);
    ASSERT_EQ(TextOf(found.GetSettings()), user) << life;
    records += found.CountRecords();
  }
  EXPECT_GT(records, 0u);
  EXPECT_NE(files.Get(kUserFile).find("\n# Revision "), std::string::npos);
}

}  // namespace tavix::test
