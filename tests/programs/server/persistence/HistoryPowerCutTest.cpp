#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>
#include <string>

#include "tests/programs/server/persistence/History.h"
#include "tests/programs/server/persistence/Pace.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/support/PowerCuts.h"

// What a power cut leaves of the history.

namespace tavix::test {

namespace {

constexpr int kChanges = 120;
constexpr int kChangesInALife = 30;
constexpr int kChangesToALargeOne = 40;
constexpr size_t kLarge = 66 * 1000;  // more than a journal has before a snapshot is made
constexpr size_t kWhenever = 0;       // before anybody was shown anything

struct HistoryStore : PersistedStore {
  explicit HistoryStore(MemoryFiles& files)
      : PersistedStore(files, kAlways, "[F]\nkey=default\n", std::chrono::hours(1), kHistoryBytes) {}
};

// A store with a history that was changed, and crashed and was started again.
class HistoryLives {
 public:
  explicit HistoryLives(unsigned int seed) : _changes(seed) {
    _files.AddObserver([this](const auto& operation) { _pace.OnOperation(operation); });
    for (int change = 0; change < kChanges; change += kChangesInALife) Live(change);
  }

  const MemoryFiles& GetFiles() const { return _files; }

  // Empty, or what is wrong with finding these files at that time: each entry leads to a state that was current, and
  // all of them to none that is older than one that was shown.
  std::string FindFault(const MemoryFiles::Image& image, size_t time) const {
    const SavedHistory saved(image);
    core::IniFile settings;
    uint64_t revision = 0;
    for (const daemon::HistoryEntry& entry : saved.entries) {
      if (entry.revision <= revision) return "entry " + std::to_string(entry.revision) + " is there twice";
      if (entry.revision != ++revision) break;  // what follows leads elsewhere
      daemon::HistoryEntry back;
      back.wasNot = entry.was;
      back.was = entry.is;
      Undo(back, settings);
      const std::string fault = _history.FindFault(TextOf(settings), kWhenever);
      if (!fault.empty()) return "entry " + std::to_string(revision) + " leads to what " + fault;
    }
    const std::string fault = _history.FindFault(TextOf(settings), time);
    return fault.empty() ? "" : "The last entry at operation " + std::to_string(time) + " " + fault;
  }

 private:
  void Live(int first) {
    _pace.Rest(true);
    HistoryStore store(_files);
    _history.AddLoaded(UserSettingsOf(store.GetManager()), 0);
    _pace.Rest(false);
    for (int change = first; change < first + kChangesInALife; ++change) MakeChange(store, change);
    _pace.Rest(true);
    if (first / kChangesInALife % 2 == 0) {
      EXPECT_TRUE(store.Finish());
      return;
    }
    _history.EndLife();
    _files.FailAfter(0, true);
    store.Crash();
    _files.FailNoMore();
  }

  void MakeChange(PersistedStore& store, int change) {
    const size_t begun = _files.CountOperations();
    const std::string before = UserSettingsOf(store.GetManager());
    if (change % kChangesToALargeOne == kChangesToALargeOne / 2) {
      _changes.MakeLarge(store.GetManager(), kLarge + 100 * static_cast<size_t>(change));
    } else {
      _changes.MakeOne(store.GetManager());
    }
    const std::string after = UserSettingsOf(store.GetManager());
    if (after == before) return;
    _history.Add(after, begun, store.GetGate(), store.GetGate().FindLast(nullptr));
    _pace.OnChange();
    if (_changes.Below(4) != 0) return;
    _pace.Rest(true);
    store.AwaitDurable();
    _pace.Rest(false);
  }

  RandomChanges _changes;
  MemoryFiles _files;
  History _history{_files};
  Pace _pace;
};

}  // namespace

TEST(HistoryPowerCut, LosesNoEntryThatAnybodyWasShownAndDoublesNone) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  const HistoryLives lives(seed);
  PowerCuts cuts({}, lives.GetFiles().GetOperations(), seed);
  do {
    ASSERT_EQ(lives.FindFault(cuts.Cut(), cuts.GetPosition()), "");
  } while (cuts.Advance());
  EXPECT_GE(CountSnapshots(lives.GetFiles()), 2u);
  EXPECT_FALSE(SavedHistory(lives.GetFiles().GetImage()).entries.empty());
}

// Whatever fails: the settings are right, and the history has no entry twice and none that leads elsewhere.
TEST(HistoryPowerCut, AtEveryOperationThatFailsLeavesRightSettings) {
  size_t operations = 1;
  for (size_t failing = 0; failing < operations; ++failing) {
    MemoryFiles files;
    files.FailAfter(failing, false);
    for (const char* value : {"1", "2", "3"}) {
      HistoryStore store(files);
      store.Merge(std::string("[A]\nx=") + value + "\n");
      store.AwaitDurable();
      store.Merge(std::string("[B]\nx=") + value + "\n");
      static_cast<void>(store.Finish());
    }
    const SavedHistory saved(files.GetImage());
    EXPECT_EQ(saved.settings, "[A]\nx=3\n[B]\nx=3\n") << failing;
    const std::vector<uint64_t> revisions = saved.GetRevisions();
    EXPECT_EQ(std::adjacent_find(revisions.begin(), revisions.end(), std::greater_equal<>()), revisions.end());
    operations = files.CountOperations();
  }
}

}  // namespace tavix::test
