#include <gtest/gtest.h>

#include <string>

#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

// A snapshot of changes of which no journal has an entry: whenever the power goes, none is missing.

namespace tavix::test {

using Kind = MemoryFiles::Operation::Kind;

namespace {

const std::string kLargeValue(kLargeChange + 1000, 'v');

struct SnapshotWithEntries : testing::Test {
  // Empty, or what a daemon finds that starts on some of the images that may be found then.
  static std::string FindGap(const MemoryFiles& files) {
    PowerCuts cuts({}, files.GetOperations(), 1);
    do {
      for (const MemoryFiles::Image& image : {cuts.Keep(), cuts.Cut(), cuts.Cut()}) {
        const std::string fault = FindGap(image);
        if (!fault.empty()) return "at operation " + std::to_string(cuts.GetPosition()) + ": " + fault;
      }
    } while (cuts.Advance());
    return "";
  }

  static std::string FindGap(const MemoryFiles::Image& image) {
    const SavedHistory saved(image);
    uint64_t revision = 0;
    core::IniFile settings;
    for (const daemon::HistoryEntry& entry : saved.entries) {
      if (entry.command == daemon::kGapCommand) return "a gap at " + std::to_string(entry.revision);
      if (entry.revision != ++revision) return "entry " + std::to_string(revision) + " is missing";
      daemon::HistoryEntry back;
      back.wasNot = entry.was;
      back.was = entry.is;
      Undo(back, settings);
    }
    return TextOf(settings) == saved.settings ? "" : "the entries lead elsewhere";
  }

  MemoryFiles files;
};

}  // namespace

TEST_F(SnapshotWithEntries, OfTheFirstChangesHasThem) {
  PersistedStore store(files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
  store.Merge("[A]\nx=1\n");
  store.Merge("[A]\nx=2\n[B]\ny=1\n");
  store.AwaitDurable();
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(FindGap(files), "");
}

// The thread that writes large changes stands in a sync until the daemon ends.
TEST_F(SnapshotWithEntries, OfALargeChangeThatWasNotWrittenYetHasIt) {
  PersistedStore store(files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
  store.Merge("[A]\nx=1\n");
  store.AwaitDurable();
  Stop stop(files, Kind::kSync, std::string(kUserFile) + ".journal.new");
  store.Merge("[A]\nx=2\n");
  stop.Await();
  store.Merge("[A]\nx=" + kLargeValue + "\n");
  store.Merge("[B]\ny=1\n");
  BackgroundCall finish([&] { EXPECT_TRUE(store.Finish()); });
  finish.AwaitBlocked();
  stop.GoOn();
  finish.Join();
  EXPECT_EQ(FindGap(files), "");
}

TEST_F(SnapshotWithEntries, BesideLargeChangesHasThem) {
  {
    PersistedStore store(files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
    for (int i = 0; i < 6; ++i) {
      store.Merge("[A]\nx=" + std::to_string(i) + std::string(kLargeChange / 2, 'x') + "\n");
      store.Merge("[B]\nx=" + std::to_string(i) + kLargeValue + "\n");
      store.Merge("[C]\nx=" + std::to_string(i) + "\n");
      if (i % 2 != 0) store.AwaitDurable();
    }
    EXPECT_TRUE(store.Finish());
  }
  EXPECT_EQ(FindGap(files), "");
}

TEST_F(SnapshotWithEntries, OfChangesThatWereNotSyncedHasThem) {
  for (const daemon::Durability& durability : {kHourly, kNever}) {
    MemoryFiles unsynced;
    PersistedStore store(unsynced, durability, "", std::chrono::hours(1), kHistoryBytes);
    store.Merge("[A]\nx=1\n");
    store.AwaitDurable();
    store.Merge("[A]\nx=2\n");
    store.Merge("[B]\ny=1\n");
    EXPECT_TRUE(store.Finish());
    EXPECT_EQ(FindGap(unsynced), "");
  }
}

// The snapshot stands for long, and the history goes on.
TEST_F(SnapshotWithEntries, DoesNotBringThemBackOnceTheHistoryHadThem) {
  {
    PersistedStore store(files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
    store.Merge("[A]\nx=1\n");
    EXPECT_TRUE(store.Finish());
  }
  const std::string path = kUserFile;
  ASSERT_NE(files.Get(path).find("\n#@ 1 "), std::string::npos);
  files.Rename(path + ".history", path + ".history.1");
  PersistedStore store(files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
  EXPECT_EQ(files.Get(path + ".history"), "");
  EXPECT_EQ(store.GetHistory()->GetRange().last, 1u);
  EXPECT_EQ(store.GetHistory()->GetRange().oldest, 0u);
}

}  // namespace tavix::test
