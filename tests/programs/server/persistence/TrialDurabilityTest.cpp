#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tavix/settings/server/RefusedChange.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

// When the end of a trial is on the disk, and what a crash makes of several trials.

namespace tavix::test {

using settings::server::RefusedChange;
using Kind = MemoryFiles::Operation::Kind;

namespace {

constexpr size_t kNoHistory = 0;
constexpr char kOld[] = "[A]\nx=1\n[B]\ny=1\n";
constexpr char kNew[] = "[A]\nx=2\n[B]\ny=2\n";

std::string UserAfter(const MemoryFiles::Image& image) {
  MemoryFiles files(image);
  TrialStore store(files);
  return store.GetUser();
}

// False: it is refused.
bool TryToConfirm(TrialStore& store, const std::string& name) {
  try {
    store.Confirm(name);
    return true;
  } catch (const RefusedChange&) {
    return false;
  }
}

}  // namespace

TEST(TrialDurability, AConfirmationIsOnTheDiskBeforeItsReplyWhateverTheDurabilityIs) {
  for (const daemon::Durability& durability : {kAlways, kHourly, kNever}) {
    MemoryFiles files;
    TrialStore store(files, kNoHistory, durability);
    store.Merge(kOld);
    store.AwaitDurable();
    store.Try("60 t", kNew);
    store.Confirm("t");
    PowerCuts cuts({}, files.GetOperations(), 1);
    while (cuts.Advance()) continue;
    for (int i = 0; i < 50; ++i) ASSERT_EQ(UserAfter(cuts.Cut()), kNew);
  }
}

TEST(TrialDurability, WhatShowsAChangeBehindAConfirmationWaitsForItsSyncAndNothingElseDoes) {
  MemoryFiles files;
  TrialStore store(files, kNoHistory, kNever);
  store.Merge(kOld);
  store.AwaitDurable();
  store.Try("60 t", kNew);
  Stop stop(files, Kind::kSync, std::string(kUserFile) + ".journal.new");
  BackgroundCall confirm([&] { store.Confirm("t"); });
  stop.Await();
  store.Merge("[C]\nz=1\n");
  EXPECT_TRUE(IsHeld(store.GetStore(), "C"));
  EXPECT_FALSE(IsHeld(store.GetStore(), "A"));
  EXPECT_FALSE(confirm.HasEnded());
  stop.GoOn();
  confirm.Join();
  store.AwaitDurable();
  store.Merge("[D]\nz=1\n");
  EXPECT_FALSE(IsHeld(store.GetStore(), "D"));
}

// It is synced in the journal before: the next one takes that one's place no sooner than it is synced itself.
TEST(TrialDurability, AConfirmationBesideASnapshotIsNotLostWithTheJournalBefore) {
  for (const daemon::Durability& durability : {kAlways, kHourly, kNever}) {
    MemoryFiles files;
    TrialStore store(files, kNoHistory, durability);
    store.Merge(kOld);
    store.AwaitDurable();
    store.Try("60 t", kNew);
    Stop stop(files, Kind::kSync, std::string(kUserFile) + ".new");
    store.MakeSnapshotDue();
    stop.Await();
    store.Confirm("t");
    stop.GoOn();
    store.Crash();
    PowerCuts cuts({}, files.GetOperations(), 1);
    while (cuts.Advance()) continue;
    for (int i = 0; i < 50; ++i) {
      core::IniFile user = DocumentOf(UserAfter(cuts.Cut()));
      user.RemoveGroup("Large");
      ASSERT_EQ(TextOf(user), kNew);
    }
  }
}

// The first time by the write that fails.
TEST(TrialDurability, AConfirmationIsRefusedWhileTheDiskTakesNoChanges) {
  MemoryFiles files;
  TrialStore store(files);
  store.Merge(kOld);
  store.Try("60 t", kNew);
  store.AwaitDurable();
  files.FailAfter(0, true);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(TryToConfirm(store, "t"));
  EXPECT_EQ(store.GetState("t"), "pending");
  EXPECT_EQ(UserAfter(files.GetImage()), kOld);
  files.FailNoMore();
  ASSERT_TRUE(Eventually([&] { return TryToConfirm(store, "t"); }));
  store.Crash();
  EXPECT_EQ(UserAfter(files.GetImage()), kNew);
}

TEST(TrialDurability, AtEveryOperationThatFailsAConfirmationIsMadeOrRefused) {
  size_t operations = 2;
  for (size_t failing = 0; failing < operations; ++failing) {
    MemoryFiles files;
    TrialStore store(files);
    store.Merge(kOld);
    store.AwaitDurable();
    store.Try("60 t", kNew);
    store.AwaitDurable();
    const size_t begun = files.CountOperations();
    files.FailAfter(failing, false);
    const bool isMade = TryToConfirm(store, "t");
    store.Merge("[C]\nz=1\n");
    store.AwaitDurable();
    operations = std::max(operations, files.CountOperations() - begun);
    EXPECT_EQ(store.GetState("t"), isMade ? "confirmed" : "pending") << failing;
    store.Crash();
    EXPECT_EQ(UserAfter(files.GetImage()).substr(0, sizeof kOld - 1), isMade ? kNew : kOld) << failing;
  }
}

namespace {

// What becomes of two trials before a crash: first t sets x and y to 2, then u sets x and z to 3.
struct Ends {
  std::vector<std::string> actions;  // "c" confirms and "r" reverts the trial whose name follows
  std::string left;                  // by a start behind the crash
};

const Ends kEnds[] = {
    {{}, "x=1\ny=1\nz=1\n"},           {{"ct"}, "x=1\ny=2\nz=1\n"},       {{"rt"}, "x=1\ny=1\nz=1\n"},
    {{"cu"}, "x=3\ny=1\nz=3\n"},       {{"ru"}, "x=1\ny=1\nz=1\n"},       {{"ct", "cu"}, "x=3\ny=2\nz=3\n"},
    {{"cu", "ct"}, "x=3\ny=2\nz=3\n"}, {{"ct", "ru"}, "x=1\ny=2\nz=1\n"}, {{"ru", "ct"}, "x=1\ny=2\nz=1\n"},
    {{"rt", "cu"}, "x=3\ny=1\nz=3\n"}, {{"cu", "rt"}, "x=3\ny=1\nz=3\n"}, {{"rt", "ru"}, "x=1\ny=1\nz=1\n"},
    {{"ru", "rt"}, "x=1\ny=1\nz=1\n"},
};

void End(TrialStore& store, const std::string& action) {
  const std::string name = action.substr(1);
  if (action.front() == 'c') {
    store.Confirm(name);
  } else {
    store.Revert(name);
  }
}

}  // namespace

// The later trial of a setting has it, with the value from before both. Their lines are in the journal alone, or in
// the file of trials as well.
TEST(TrialDurability, TwoTrialsOfASettingEndInEachOrderAndACrashRevertsTheRest) {
  for (const bool hasFile : {false, true}) {
    for (const Ends& ends : kEnds) {
      MemoryFiles files;
      TrialStore store(files);
      store.Merge("[A]\nx=1\ny=1\nz=1\n");
      store.Try("60 t", "[A]\nx=2\ny=2\n");
      if (hasFile) store.MakeSnapshotDue();
      if (hasFile) store.AwaitTrialsInFile(files);
      store.Try("60 u", "[A]\nx=3\nz=3\n");
      for (const std::string& action : ends.actions) End(store, action);
      store.AwaitDurable();
      store.Crash();
      core::IniFile user = DocumentOf(UserAfter(files.GetImage()));
      user.RemoveGroup("Large");
      EXPECT_EQ(TextOf(user), "[A]\n" + ends.left) << testing::PrintToString(ends.actions) << hasFile;
    }
  }
}

}  // namespace tavix::test
