#include "tests/support/PowerCuts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>

#include "programs/server/persistence/UserSettingsFiles.h"
#include "tests/programs/server/persistence/History.h"
#include "tests/programs/server/persistence/Pace.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

constexpr int kChanges = 200;
constexpr int kChangesInALife = 40;
constexpr int kChangesToALargeOne = 45;
constexpr size_t kLarge = 70 * 1000;  // more than a journal has before a snapshot is made
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr size_t kImages = 4 * 1000;  // one takes many times as long, and what is tested is the same
#else
constexpr size_t kImages = 24 * 1000;
#endif
constexpr size_t kWhenever = 0;  // before anybody was shown anything
constexpr char kDefaults[] = "[A/settings]\nkey1=default\n[B/settings]\nkey2=default\n[F]\nkey=default\n";

unsigned int PickSeed() {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  testing::Test::RecordProperty("seed", std::to_string(seed));
  return seed;
}

// Later records of a journal got to the disk before its first bytes did: they are kept for whoever wants to look.
bool IsOfLostBeginning(const std::string& problem) {
  return problem.find("The changes in 'user.ini.journal' belong to no user settings that are there") == 0;
}

// Empty, or what is wrong with finding these files at that time.
std::string FindFaultOf(const History& history, const MemoryFiles::Image& image, size_t time) {
  MemoryFiles files(image);
  const daemon::FoundUserSettings found = daemon::UserSettingsFiles(files, kUserFile).Find(true);
  if (!found.problems.empty() && !IsOfLostBeginning(found.problems.front())) return found.problems.front();
  const std::string fault = history.FindFault(TextOf(found.settings), time);
  return fault.empty() ? "" : "The state at operation " + std::to_string(time) + " " + fault;
}

// A store that was changed, and crashed and was started again, on files that tell all that was done to them.
class RecordedLives {
 public:
  // image: the files at first.
  RecordedLives(const MemoryFiles::Image& image, daemon::Durability durability, unsigned int seed)
      : _durability(durability), _changes(seed), _files(image) {
    _files.AddObserver([this](const auto& operation) { _pace.OnOperation(operation); });
    for (int change = 0; change < kChanges; change += kChangesInALife) Live(change);
  }

  const MemoryFiles& GetFiles() const { return _files; }

  size_t CountSnapshots() const {
    const auto operations = _files.GetOperations();
    return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [](const auto& operation) {
      return operation.kind == MemoryFiles::Operation::Kind::kRename && operation.to == kUserFile;
    }));
  }

  std::string FindFault(const MemoryFiles::Image& image, size_t time) const {
    return FindFaultOf(_history, image, time);
  }

 private:
  void Live(int first) {
    _pace.Rest(true);
    PersistedStore store(_files, _durability, kDefaults);
    _history.AddLoaded(UserSettingsOf(store.GetManager()), 0);
    _pace.Rest(false);
    for (int change = first; change < first + kChangesInALife; ++change) MakeChange(store, change);
    if (first / kChangesInALife % 2 == 0) return Finish(store);
    _history.EndLife();
    _files.FailAfter(0, true);
    _pace.Rest(true);
    store.Crash();
    _files.FailNoMore();
    _awaitsSnapshot = false;
  }

  // In an orderly way, and not before the snapshot that the life's large change asked for. One that is not awaited may
  // be undone by the next change before it was written.
  void Finish(PersistedStore& store) {
    _pace.Rest(true);
    EXPECT_TRUE(!_awaitsSnapshot || Eventually([this] { return CountSnapshots() > _snapshotsBefore; }));
    _awaitsSnapshot = false;
    EXPECT_TRUE(store.Finish());
  }

  void MakeChange(PersistedStore& store, int change) {
    const size_t begun = _files.CountOperations();
    const std::string before = UserSettingsOf(store.GetManager());
    const bool isLarge = change % kChangesToALargeOne == kChangesToALargeOne / 2;
    const bool isAwaited = isLarge && _changes.Below(2) == 0;
    if (isLarge) {
      _awaitsSnapshot = isAwaited;
      _snapshotsBefore = CountSnapshots();
      _changes.MakeLarge(store.GetManager(), kLarge + 100 * static_cast<size_t>(change));
    } else {
      _changes.MakeOne(store.GetManager());
    }
    const std::string after = UserSettingsOf(store.GetManager());
    if (after == before) return;
    _history.Add(after, begun, store.GetGate(), store.GetGate().FindLast(nullptr));
    _pace.OnChange();
    if (isAwaited || _changes.Below(4) == 0) AwaitDurable(store);
  }

  void AwaitDurable(PersistedStore& store) {
    _pace.Rest(true);
    store.AwaitDurable();
    _pace.Rest(false);
  }

  const daemon::Durability _durability;
  RandomChanges _changes;
  bool _awaitsSnapshot = false;
  size_t _snapshotsBefore = 0;
  MemoryFiles _files;
  History _history{_files};
  Pace _pace;
};

// A store whose files filled the disk, and that healed it when the settings fitted again. What is shown while the disk
// is full is not safe; what was made before the disk had everything again must be.
class HealedDisk {
 public:
  explicit HealedDisk(unsigned int seed) : _changes(seed) {
    _files.LimitRoom(kRoom);
    PersistedStore store(_files, kAlways);
    _history.AddLoaded(UserSettingsOf(store.GetManager()), 0);
    Change(store, [&] { store.Merge("[First]\nx=1\n"); });
    store.AwaitDurable();  // in a small snapshot, so that a journal is filled
    // When a snapshot begins is a matter of time; as a rule each round has one that finds no room.
    for (int round = 0; round < kRounds || (round < kMaxRounds && CountRoomGivenBack() == 0); ++round)
      FillAndHeal(store);
    EXPECT_TRUE(store.Finish());
  }

  const MemoryFiles& GetFiles() const { return _files; }

  size_t CountRoomGivenBack() const {
    const auto operations = _files.GetOperations();
    return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [](const auto& operation) {
      return operation.kind == MemoryFiles::Operation::Kind::kTruncate;
    }));
  }

  std::string FindFault(const MemoryFiles::Image& image, size_t time) const {
    return FindFaultOf(_history, image, time);
  }

 private:
  static constexpr size_t kRoom = 256 * 1024;
  static constexpr int kRounds = 3;
  static constexpr int kMaxRounds = 20;
  static constexpr int kGroups = 25;
  static constexpr size_t kBytesOfGroup = 9'000;
  static constexpr size_t kBytesThatFit = 12'000;  // less than the journal keeps free of records
  static constexpr int kSmallChanges = 20;

  void FillAndHeal(PersistedStore& store) {
    for (int i = 0; i < kGroups; ++i) {
      const std::string value = std::to_string(++_values) + std::string(kBytesOfGroup, 'x');
      Change(store, [&] { store.Merge("[Group" + std::to_string(i) + "]\nx=" + value + "\n"); });
    }
    const std::string value = std::to_string(++_values) + std::string(kBytesThatFit, 'y');
    const core::IniFile document = DocumentOf("[Group0]\nx=" + value + "\n");
    Change(store, [&] { store.GetManager().OverwriteSettings(std::set<std::string>{"*"}, document); });
    for (int i = 0; i < kSmallChanges; ++i) Change(store, [&] { _changes.MakeOne(store.GetManager()); });
    ASSERT_TRUE(Eventually([&] { return store.GetUnsavedSince() == 0; }));
    _saved.SetDurable(_last);
  }

  template <class Make>
  void Change(PersistedStore& store, Make make) {
    const size_t begun = _files.CountOperations();
    make();
    const std::set<std::string> any;
    _last = _saved.Add(&any);
    _history.Add(UserSettingsOf(store.GetManager()), begun, _saved, _last);
  }

  RandomChanges _changes;
  size_t _values = 0;
  MemoryFiles _files;
  daemon::DurabilityGate _saved{true};  // of the changes that the disk is known to have
  daemon::DurabilityGate::Ticket _last = 0;
  History _history{_files};
};

MemoryFiles::Image MakeSavedFiles() {
  MemoryFiles files;
  PersistedStore store(files, kAlways);
  store.Merge("[First]\nx=1\n");
  store.Finish();
  return files.GetImage();
}

}  // namespace

TEST(PowerCut, LeavesAStateThatWasCurrentAndNoOlderOneThanAnybodyWasShown) {
  const unsigned int seed = PickSeed();
  const RecordedLives lives({}, kAlways, seed);
  PowerCuts cuts({}, lives.GetFiles().GetOperations(), seed);
  const size_t imagesAtEach = kImages / lives.GetFiles().CountOperations() + 1;
  size_t images = 0;
  do {
    for (size_t image = 0; image < imagesAtEach; ++image, ++images)
      ASSERT_EQ(lives.FindFault(cuts.Cut(), cuts.GetPosition()), "");
  } while (cuts.Advance());
  EXPECT_GE(images, kImages);
  EXPECT_GE(lives.CountSnapshots(), 3u);
  std::cout << images << " images of " << cuts.GetPosition() << " operations, " << lives.CountSnapshots()
            << " snapshots\n";
}

TEST(PowerCut, WhileAFullDiskHealsLeavesAStateThatWasCurrentAndAllThatWasSaved) {
  const unsigned int seed = PickSeed();
  const HealedDisk disk(seed);
  PowerCuts cuts({}, disk.GetFiles().GetOperations(), seed);
  const size_t imagesAtEach = kImages / 6 / disk.GetFiles().CountOperations() + 1;
  size_t images = 0;
  do {
    for (size_t image = 0; image < imagesAtEach; ++image, ++images)
      ASSERT_EQ(disk.FindFault(cuts.Cut(), cuts.GetPosition()), "");
  } while (cuts.Advance());
  EXPECT_GE(disk.CountRoomGivenBack(), 1u);
  std::cout << images << " images of " << cuts.GetPosition() << " operations, room was given back "
            << disk.CountRoomGivenBack() << " times\n";
}

// Whatever the system had not written may be gone, but never half of it.
TEST(PowerCut, WithoutDurabilityLeavesAStateThatWasCurrent) {
  const unsigned int seed = PickSeed();
  const MemoryFiles::Image image = MakeSavedFiles();
  const RecordedLives lives(image, kNever, seed);
  PowerCuts cuts(image, lives.GetFiles().GetOperations(), seed);
  const size_t imagesAtEach = kImages / 4 / lives.GetFiles().CountOperations() + 1;
  do {
    for (size_t i = 0; i < imagesAtEach; ++i) ASSERT_EQ(lives.FindFault(cuts.Cut(), kWhenever), "");
  } while (cuts.Advance());
}

// A first snapshot stands, which journals can follow.
TEST(Crash, LosesNothingAtAnyMomentThoughNothingWasSynced) {
  const unsigned int seed = PickSeed();
  const MemoryFiles::Image image = MakeSavedFiles();
  const RecordedLives lives(image, kHourly, seed);
  PowerCuts crashes(image, lives.GetFiles().GetOperations(), seed);
  do {
    ASSERT_EQ(lives.FindFault(crashes.Keep(), crashes.GetPosition()), "");
  } while (crashes.Advance());
  EXPECT_GE(lives.CountSnapshots(), 2u);
}

}  // namespace tavix::test
