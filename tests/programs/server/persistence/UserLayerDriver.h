#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "programs/server/persistence/UserLayerState.h"
#include "tests/programs/server/persistence/PersistedStore.h"

namespace tavix::test {

inline constexpr size_t kSnapshotBytes = 300'000;
inline const daemon::UserLayerState::Clock::time_point kNow = daemon::UserLayerState::Clock::now();
inline constexpr std::time_t kTime = 1'000'000;

inline daemon::UserLayerState::Snapshot Written(const daemon::UserLayerState::SnapshotBegin& begin) {
  return {{begin.generation, 7}, kSnapshotBytes, begin.last};
}

// A state that was brought somewhere, and the snapshot that is under way there, if there is one.
class UserLayerDriver {
 public:
  using Size = daemon::UserLayerState::Size;
  using Steps = daemon::UserLayerState::Steps;

  explicit UserLayerDriver(daemon::Durability durability = kAlways) : state(durability) {}

  void Load(uint64_t generation, bool hasJournal = false) {
    daemon::UserLayerState::Found found;
    found.snapshot.generation = generation;
    found.nextGeneration = generation + 1;
    found.snapshotBytes = kSnapshotBytes;
    found.hasJournal = found.isInPlace = hasJournal;
    found.journalFollows = generation;
    state.Load(found);
  }

  Steps Change(Size size = Size::kSmall) { return state.OnChange(size, kNow, kTime); }

  // Written as the state asks for.
  Steps SaveChange(uint64_t journalEnd = 1000) {
    if (Change().write == Steps::Write::kOpenJournal) state.OnOpened();
    return state.OnAppended(journalEnd);
  }

  void Begin() { _begin = state.OnSnapshotBegun(); }

  Steps Follow(bool hasNext, uint64_t journalEnd = 1000) {
    const auto next = hasNext ? state.GetNames().OnNextCreated() : 0;
    return state.OnFollowed(Written(_begin), next, state.GetLast(), journalEnd);
  }

  Steps FollowWithoutTheLast() {
    const auto last = state.GetLast();
    state.OnTakeOver();
    Change();
    return state.OnFollowed(Written(_begin), state.GetNames().OnNextCreated(), last, 1000);
  }

  Steps WriteLater() {
    Change(Size::kLarge);
    return state.OnLateWritten(state.OnLateWriteBegun(), 1000);
  }

  Steps FailToWriteLater() {
    Change(Size::kLarge);
    return state.OnLateWriteFailed(state.OnLateWriteBegun(), kNow).value_or(Steps());
  }

  Steps FailToFollow() { return state.OnFollowFailed(Written(_begin), kNow); }
  Steps Sync() { return state.OnSynced(state.OnSyncBegun(kNow, kTime)); }
  Steps FailSync() { return state.OnSyncFailed(state.OnSyncBegun(kNow, kTime), kNow).value_or(Steps()); }

  daemon::UserLayerState state;

 private:
  daemon::UserLayerState::SnapshotBegin _begin;
};

// A change that was to be appended, and was not.
inline daemon::UserLayerState::Steps FailAppend(UserLayerDriver& driver) {
  driver.SaveChange();
  return driver.state.OnAppendFailed(kNow);
}

inline void ReachFailed(UserLayerDriver& driver) {
  driver.Load(1);
  FailAppend(driver);
}

}  // namespace tavix::test
