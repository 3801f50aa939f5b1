#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <random>

#include "programs/common/SettingsFileNames.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

namespace tavix::test {

namespace {

constexpr int kRestarts = 60;
constexpr size_t kMaxChanges = 30;
constexpr int kPowerCuts = 60;
constexpr char kDefaults[] = "[A/settings]\nkey1=default\n[F/settings]\nkey=default\n";

unsigned int PickSeed() {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  testing::Test::RecordProperty("seed", std::to_string(seed));
  return seed;
}

// What comes behind a large change may be on its way to the journal, and is shown to nobody until it is there.
void MakeSome(RandomChanges& changes, PersistedStore& store) {
  for (size_t count = changes.Below(kMaxChanges); count > 0; --count) changes.MakeOne(store.GetManager());
  const bool makesLarge = changes.Below(4) == 0;
  if (makesLarge) changes.MakeLarge(store.GetManager(), 70 * 1000 + changes.Below(1000));
  for (size_t count = changes.Below(kMaxChanges); count > 0; --count) changes.MakeOne(store.GetManager());
  if (makesLarge) store.AwaitDurable();
}

// A journal that an earlier life left long makes a snapshot due at the first change. What comes behind the snapshot's
// text may be in no journal yet, and is shown to nobody until it is.
bool HasBegunSnapshot(const MemoryFiles& files) {
  const auto operations = files.GetOperations();
  return std::any_of(operations.begin(), operations.end(), [](const MemoryFiles::Operation& operation) {
    return operation.kind == MemoryFiles::Operation::Kind::kCreate && operation.path == programs::NewFileOf(kUserFile);
  });
}

// A first snapshot, which journals can follow.
void SaveFirst(MemoryFiles& files) {
  PersistedStore store(files, kAlways);
  store.Merge("[First]\nx=1\n");
  store.Finish();
}

}  // namespace

// Threads that sync and write snapshots are wherever they are when the crash comes.
TEST(Restart, AfterACrashOrAnOrderlyEndFindsWhatWasThere) {
  RandomChanges changes(PickSeed());
  auto files = std::make_unique<MemoryFiles>();
  SaveFirst(*files);
  std::string before = "[First]\nx=1\n";
  for (int restart = 0; restart < kRestarts; ++restart) {
    const daemon::Durability durabilities[] = {kAlways, kHourly, kNever};
    PersistedStore store(*files, durabilities[changes.Below(3)], kDefaults);
    ASSERT_EQ(UserSettingsOf(store.GetManager()), before) << "restart " << restart;
    MakeSome(changes, store);
    if (HasBegunSnapshot(*files)) store.AwaitDurable();
    before = UserSettingsOf(store.GetManager());
    if (changes.Below(4) == 0) store.Finish();
    auto image = std::make_unique<MemoryFiles>(files->GetImage());
    store.Crash();
    files = std::move(image);
  }
}

// Each life goes on from what a power cut left of the one before.
TEST(Restart, AfterOnePowerCutAfterAnotherFindsWhatWasShown) {
  const unsigned int seed = PickSeed();
  RandomChanges changes(seed);
  MemoryFiles::Image image;
  for (int cut = 0; cut < kPowerCuts; ++cut) {
    MemoryFiles files(image);
    std::string shown;
    size_t time = 0;
    {
      PersistedStore store(files, kAlways, kDefaults);
      MakeSome(changes, store);
      store.Merge("[Last]\nx=" + std::to_string(cut) + "\n");
      store.AwaitDurable();
      shown = UserSettingsOf(store.GetManager());
      time = files.CountOperations();
    }
    PowerCuts cuts(image, files.GetOperations(), seed + static_cast<unsigned int>(cut));
    while (cuts.GetPosition() < time) cuts.Advance();
    image = cuts.Cut();
    MemoryFiles found(image);
    ASSERT_EQ(UserSettingsOf(PersistedStore(found, kAlways).GetManager()), shown) << "power cut " << cut;
  }
}

}  // namespace tavix::test
