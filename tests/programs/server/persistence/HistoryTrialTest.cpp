#include <gtest/gtest.h>

#include <string>

#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/MemoryFiles.h"

// What the history has of changes on trial.

namespace tavix::test {

namespace {

struct HistoryOfTrials : testing::Test {
  // A daemon begins, does something, and crashes.
  template <class Action>
  void Live(Action action) {
    TrialStore store(files, kHistoryBytes);
    action(store);
    store.AwaitDurable();
    store.Crash();
  }

  static std::string ShowRange(TrialStore& store) {
    const daemon::HistoryParts::Range range = store.GetStore().GetHistory()->GetRange();
    return std::to_string(range.oldest) + " " + std::to_string(range.last);
  }

  MemoryFiles files;
};

}  // namespace

TEST_F(HistoryOfTrials, NamesTheTrialOfAChangeAndOfItsRevert) {
  Live([](TrialStore& store) {
    store.Try("60 t", "[A]\nx=1\n");
    store.Merge("[B]\nx=1\n");
    store.Try("60 u", "[B]\nx=2\n");
    store.Revert("u");
  });
  Live([](TrialStore&) {});
  const SavedHistory saved(files.GetImage());
  std::string trials;
  for (const daemon::HistoryEntry& entry : saved.entries) trials += entry.command + " " + entry.trial + "\n";
  EXPECT_EQ(trials, "merge t\n- \nmerge u\nrevert u\nrevert t\n");
}

// None of what becomes of a trial without a change is a change without an entry.
TEST_F(HistoryOfTrials, HasNoGapBehindACrash) {
  Live([](TrialStore& store) {
    store.Merge("[A]\nx=1\n");
    store.Try("60 t", "[A]\nx=2\n");
    store.Confirm("t");
  });
  Live([](TrialStore& store) {
    EXPECT_EQ(ShowRange(store), "0 2");
    store.Try("60 t", "[A]\nx=3\n");
    store.Merge("[A]\nx=3\n");
  });
  Live([](TrialStore& store) {
    EXPECT_EQ(ShowRange(store), "0 3");
    store.Try("60 t", "[A]\nx=4\n");
    store.Merge("[A]\nx=5\n");
    store.Revert("t");
  });
  TrialStore store(files, kHistoryBytes);
  EXPECT_EQ(ShowRange(store), "0 5");
}

// What becomes of trials meanwhile is owed to the snapshot that heals it.
TEST(DiskThatFails, LeavesNoLinesAboutTrialsInMemory) {
  MemoryFiles files;
  TrialStore store(files);
  store.Merge("[A]\nx=1\n");
  store.AwaitDurable();
  files.FailAfter(0, true);
  for (int i = 0; i < 100; ++i) {
    store.Try("60 t", "[A]\nx=2\ny=" + std::to_string(i) + "\n");
    store.Merge("[A]\nx=3\n");
  }
  store.AwaitDurable();
  EXPECT_EQ(store.GetTrials().GetUnjournaled(), "");
  files.FailNoMore();
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(SavedHistory(files.GetImage()).settings, "[A]\nx=3\n");
}

}  // namespace tavix::test
