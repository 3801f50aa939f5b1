#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/server/persistence/JournalText.h"
#include "tavix/settings/Amendment.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/support/DocumentText.h"
#include "tests/support/PowerCuts.h"

// What becomes of an amendment in the journal.

namespace tavix::test {

using settings::Amendment;
using testing::AnyOf;
using testing::StartsWith;

namespace {

constexpr char kJournal[] = "user.ini.journal";
constexpr char kFirstVersion[] = "# tavix-settings journal 1, ";
constexpr char kDefaults[] = "[A/settings]\nkey1=default\n[B/settings]\nkey2=default\n[E/settings]\nkey=default\n";
constexpr char kUser[] = "[A]\nx=1\ny=2\n[B]\nx=1\n[C]\nx=1\n[TavixSettings/Data/DeletedGroups]\nD=D\nE=E\n";
constexpr char kAmended[] = "[A]\ny=2\n[C]\nz=1\n[F]\nx=1\n[TavixSettings/Data/DeletedGroups]\nC=C\nE=E\n";

// Of keys, groups and the record something comes, and something goes.
Amendment MakeAmendment() {
  Amendment amendment;
  amendment.set = DocumentOf("[F]\nx=1\n");
  amendment.unset = DocumentOf("[A]\nx=\n[B]\nx=\n[D]\n");
  amendment.replace = DocumentOf("[C]\nz=1\n");
  return amendment;
}

// The files of a store that holds kUser in its snapshot.
MemoryFiles::Image MakeSavedFiles() {
  MemoryFiles files;
  PersistedStore store(files, kAlways);
  store.Merge(kUser);
  EXPECT_TRUE(store.Finish());
  return files.GetImage();
}

size_t CountRecords(const std::string& journal) {
  daemon::JournalReader reader(journal);
  size_t records = 0;
  while (reader.Next()) ++records;
  return records;
}

}  // namespace

TEST(AmendJournal, AnAmendmentIsOneRecord) {
  MemoryFiles files(MakeSavedFiles());
  PersistedStore store(files, kAlways);
  ASSERT_TRUE(store.GetManager().Amend(MakeAmendment()));
  store.AwaitDurable();
  EXPECT_EQ(CountRecords(files.Get(kJournal)), 1u);
  store.Crash();
  EXPECT_EQ(UserSettingsOf(PersistedStore(files, kAlways).GetManager()), kAmended);
}

// An older daemon reads it: groups are there whole.
TEST(AmendJournal, KeysAndMembersThatLeaveAreARecordOfTheFirstVersion) {
  MemoryFiles files(MakeSavedFiles());
  PersistedStore store(files, kAlways);
  Amendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n[D]\n");
  ASSERT_TRUE(store.GetManager().Amend(amendment));
  store.AwaitDurable();
  const std::string journal = files.Get(kJournal);
  EXPECT_THAT(journal, StartsWith(kFirstVersion));
  daemon::JournalReader reader(journal);
  ASSERT_TRUE(reader.Next());
  EXPECT_FALSE(reader.Extends());
  EXPECT_EQ(reader.GetRemoved(), "");
  EXPECT_EQ(reader.GetSet(), "[A]\ny=2\n[TavixSettings/Data/DeletedGroups]\nE=E\n");
}

TEST(AmendJournal, APowerCutLeavesAllOfAnAmendmentOrNothing) {
  const MemoryFiles::Image image = MakeSavedFiles();
  MemoryFiles files(image);
  PersistedStore store(files, kAlways);
  const size_t loaded = files.CountOperations();
  ASSERT_TRUE(store.GetManager().Amend(MakeAmendment()));
  store.AwaitDurable();
  const size_t shown = files.CountOperations();
  PowerCuts cuts(image, files.GetOperations(), 7);
  do {
    for (int i = 0; i < 50; ++i) {
      MemoryFiles found(cuts.Cut());
      const std::string user = UserSettingsOf(PersistedStore(found, kAlways).GetManager());
      EXPECT_THAT(user, AnyOf(kUser, kAmended)) << cuts.GetPosition();
      EXPECT_TRUE(cuts.GetPosition() < shown || user == kAmended) << cuts.GetPosition();
      EXPECT_TRUE(cuts.GetPosition() > loaded || user == kUser) << cuts.GetPosition();
    }
  } while (cuts.Advance());
}

TEST(AmendJournal, WhatAmendmentsComputeIsWhatTheNextStartShows) {
  RandomChanges changes(16);
  MemoryFiles files;
  std::string all = kDefaults;
  size_t made = 0;
  for (int start = 0; start < 40; ++start) {
    PersistedStore store(files, kAlways, kDefaults);
    ASSERT_EQ(AllSettingsOf(store.GetManager()), all) << start;
    for (int i = 0; i < 10; ++i) made += store.GetManager().Amend(changes.NextAmendment()) ? 1 : 0;
    all = AllSettingsOf(store.GetManager());
    if (start % 4 == 0) {
      ASSERT_TRUE(store.Finish());
    }
  }
  EXPECT_GT(made, 200u);
}

}  // namespace tavix::test
