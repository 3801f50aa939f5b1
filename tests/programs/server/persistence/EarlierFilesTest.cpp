#include <gtest/gtest.h>

#include <string>

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

}  // namespace tavix::test
