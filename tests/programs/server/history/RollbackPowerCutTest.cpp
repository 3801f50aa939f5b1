#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <string>

#include "programs/server/history/Rollback.h"
#include "programs/server/history/SettingsOfRevision.h"
#include "tavix/settings/Amendment.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/PowerCuts.h"

// What a crash, a power cut or a disk that fails leaves of a rollback.

namespace tavix::test {

namespace {

constexpr char kBefore[] = "[A]\nx=2\ny=2\n[B]\nx=1\n[TavixSettings/Data/DeletedGroups]\nD=D\n";
constexpr char kBehind[] = "[A]\nx=1\n[C]\n[D]\nx=1\n";

// trial: as a client sends it; empty: none.
void RollBack(TrialStore& store, const std::string& trial) {
  const daemon::SettingsFilter all("");
  const daemon::KeptHistory& history = *store.GetStore().GetHistory();
  daemon::SettingsOfRevision earlier(history, all, 1, 0);
  settings::server::ChangeTicket ticket = 0;
  daemon::Rollback(store.GetStore().GetManager(), history, earlier, all)
      .Make({TrialStore::kClient, "rollback", {}, trial}, ticket);
  TrialStore::AwaitDurable(store.GetStore().GetGate(), ticket);
}

void MakeChanges(TrialStore& store) {
  store.Merge("[A]\nx=1\n[C]\n[D]\nx=1\n");
  store.TryToOverwrite("60 t", "D");
  store.Confirm("t");
  store.Merge("[A]\nx=2\ny=2\n[B]\nx=1\n");
  store.Merge("[C]\nx=1\n");
  settings::Amendment unset;
  unset.unset = DocumentOf("[C]\nx=\n");
  EXPECT_TRUE(store.GetStore().GetManager().Amend(unset));
  store.AwaitDurable();
}

std::string UserAfter(const MemoryFiles::Image& image) {
  MemoryFiles files(image);
  TrialStore store(files, kHistoryBytes);
  return store.GetUser();
}

}  // namespace

TEST(RollbackPowerCut, LeavesTheSettingsOfBeforeOrOfBehindAndMixesNothing) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  MemoryFiles files;
  TrialStore store(files, kHistoryBytes);
  MakeChanges(store);
  ASSERT_EQ(store.GetUser(), kBefore);
  const size_t begun = files.CountOperations();
  RollBack(store, "");
  ASSERT_EQ(store.GetUser(), kBehind);
  const size_t shown = files.CountOperations();
  EXPECT_TRUE(store.Finish());
  PowerCuts cuts({}, files.GetOperations(), seed);
  do {
    if (cuts.GetPosition() < begun) continue;
    const MemoryFiles::Image image = cuts.Cut();
    const std::string found = UserAfter(image);
    if (cuts.GetPosition() >= shown || found != kBefore) {
      ASSERT_EQ(found, kBehind) << "at operation " << cuts.GetPosition();
      EXPECT_EQ(SavedHistory(image).entries.back().command, "rollback");
    }
  } while (cuts.Advance());
}

TEST(RollbackPowerCut, LeavesNothingOfARollbackOnTrial) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  MemoryFiles files;
  TrialStore store(files, kHistoryBytes);
  MakeChanges(store);
  const size_t begun = files.CountOperations();
  RollBack(store, "60 back");
  ASSERT_EQ(store.GetUser(), kBehind);
  EXPECT_TRUE(store.Finish());
  PowerCuts cuts({}, files.GetOperations(), seed);
  do {
    if (cuts.GetPosition() >= begun) {
      ASSERT_EQ(UserAfter(cuts.Cut()), kBefore) << "at operation " << cuts.GetPosition();
    }
  } while (cuts.Advance());
}

TEST(RollbackOnTrial, IsRevertedOrConfirmed) {
  for (const bool isConfirmed : {false, true}) {
    MemoryFiles files;
    TrialStore store(files, kHistoryBytes);
    MakeChanges(store);
    RollBack(store, "60 back");
    EXPECT_EQ(store.GetUser(), kBehind);
    EXPECT_EQ(store.GetState("back"), "pending");
    if (isConfirmed) {
      store.Confirm("back");
    } else {
      store.Revert("back");
    }
    EXPECT_EQ(store.GetUser(), isConfirmed ? kBehind : kBefore);
    EXPECT_TRUE(store.Finish());
    EXPECT_EQ(UserAfter(files.GetImage()), isConfirmed ? kBehind : kBefore);
  }
}

// Whatever fails, for once or for ever: readers have the settings of behind, and the disk gets them once it can.
TEST(RollbackPowerCut, AtEveryOperationThatFailsTheStoreGoesOn) {
  for (const bool forEver : {false, true}) {
    size_t operations = 1;
    for (size_t failing = 0; failing < operations; ++failing) {
      MemoryFiles files;
      TrialStore store(files, kHistoryBytes);
      MakeChanges(store);
      const size_t begun = files.CountOperations();
      files.FailAfter(failing, forEver);
      RollBack(store, "");
      EXPECT_EQ(store.GetUser(), kBehind);
      operations = files.CountOperations() - begun;
      files.FailNoMore();
      EXPECT_TRUE(store.Finish());
      EXPECT_EQ(UserAfter(files.GetImage()), kBehind);
    }
  }
}

}  // namespace tavix::test
