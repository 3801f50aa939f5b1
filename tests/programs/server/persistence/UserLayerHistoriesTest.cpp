#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <optional>
#include <random>

#include "programs/server/persistence/UserLayerState.h"
#include "tests/programs/server/persistence/PersistedStore.h"

// UserLayerState beside a model of a disk, through random histories in which a sync and a snapshot are under way at any
// time and everything may fail.

namespace tavix::test {

using daemon::JournalNames;
using daemon::UserLayerState;
using Steps = UserLayerState::Steps;
using Ticket = UserLayerState::Ticket;

namespace {

constexpr unsigned int kHistories = 400;
constexpr int kEvents = 400;
constexpr uint64_t kLongJournal = 1'000'000;

// A journal's file, and the change up to which it holds all since its snapshot, and holds them synced.
struct ModelJournal {
  Ticket written = 0;
  Ticket synced = 0;
  bool isInPlace = false;
};

// Carries out what the state asks for, and checks after each event what must hold whatever happened before.
class RandomHistory {
 public:
  RandomHistory(daemon::Durability durability, unsigned int seed)
      : _isAlways(durability.kind == daemon::Durability::Kind::kAlways), _random(seed), _state(durability) {
    UserLayerState::Found found;
    found.snapshot.generation = Below(2);
    found.nextGeneration = 2;
    Perform(_state.Load(found));
  }

  void MakeEvent() {
    switch (Below(6)) {
      case 0:
      case 1:
        MakeChange();
        break;
      case 2:
      case 3:
        _sync ? EndSync() : BeginSync();
        break;
      default:
        AdvanceSnapshot();
    }
    CheckThatShownIsDurable();
    CheckThatNothingIsForgotten();
    CheckPhase();
  }

  size_t CountSnapshots() const { return _snapshots; }
  size_t CountFailures() const { return _failures; }

 private:
  size_t Below(size_t limit) { return _random() % limit; }
  bool Fails() { return Below(12) == 0; }
  JournalNames::Number Current() const { return _state.GetNames().GetCurrent(); }

  void MakeChange() {
    const Steps steps = _state.OnChange(Below(20) != 0, _now, 1);
    Perform(steps);
    if (_isReleased) _shown = _state.GetLast();
    if (steps.write == Steps::Write::kNothing) return;
    if (steps.write == Steps::Write::kOpenJournal) {
      if (Fails()) return Perform(_state.OnAppendFailed(_now));
      ExpectNameIsFree();
      _state.OnOpened();
      _journals[Current()] = {_state.GetLast(), 0, false};
    }
    if (Fails()) return Perform(_state.OnAppendFailed(_now));
    _journals[Current()].written = _state.GetLast();
    Perform(_state.OnAppended(Below(10) == 0 ? kLongJournal : 1));
  }

  // A journal may be made only while no other that is needed has the name.
  void ExpectNameIsFree() const {
    const JournalNames::Number owner = _state.GetNames().GetOwner();
    EXPECT_FALSE(owner != 0 && owner == Current());
  }

  void BeginSync() {
    if (!_state.GetSyncTime()) return;
    _sync = _state.OnSyncBegun(_now, 1);
  }

  void EndSync() {
    const UserLayerState::Sync sync = *_sync;
    ModelJournal& journal = _journals.at(sync.journal);
    _sync.reset();
    if (Fails()) {
      if (const std::optional<Steps> steps = _state.OnSyncFailed(sync, _now)) Perform(*steps);
      return;
    }
    journal.synced = std::max(journal.synced, sync.last);
    if (!journal.isInPlace && !TakePlace(sync.journal)) return;
    Show(sync.last);
    Perform(_state.OnSynced(sync));
  }

  // The journal that had the place is gone then.
  bool TakePlace(JournalNames::Number journal) {
    if (!_state.GetNames().MayTakePlace(journal)) return false;
    EXPECT_EQ(_state.GetNames().GetOwner(), journal);
    _state.GetNames().OnTookPlace(journal);
    for (auto& other : _journals) other.second.isInPlace = false;
    _journals.at(journal).isInPlace = true;
    return true;
  }

  void AdvanceSnapshot() {
    if (!_state.IsSnapshotting()) {
      if (_state.GetSnapshotTime() || Below(8) == 0) BeginSnapshot();
    } else if (!_isWritten) {
      if (Fails()) return FailSnapshot();
      _isWritten = true;
      _snapshotLast = _begin.last;
      ++_snapshots;
    } else {
      FollowSnapshot();
    }
  }

  void BeginSnapshot() {
    _state.GetNames().TakeUselessName();
    if (Fails()) return FailSnapshot();
    _begin = _state.OnSnapshotBegun();
    _isWritten = false;
  }

  void FailSnapshot() { Perform(_state.OnSnapshotFailed(_now)); }

  void FollowSnapshot() {
    const UserLayerState::Snapshot snapshot{{_begin.generation, 1}, 1000, _begin.last};
    const bool needsNext = _begin.last < _state.GetLast() || Current() != 0;
    if (needsNext && Current() != 0) TakePlace(Current());
    if (needsNext) ExpectNameIsFree();
    const JournalNames::Number next = needsNext ? _state.GetNames().OnNextCreated() : 0;
    if (needsNext && Fails()) {
      _state.GetNames().ReleaseNext();
      Perform(_state.OnFollowFailed(snapshot, _now));
    } else {
      if (needsNext) _journals[next] = {_state.GetLast(), 0, false};
      Perform(_state.OnFollowed(snapshot, next, 1));
    }
    Show(snapshot.last);
  }

  void Perform(const Steps& steps) {
    if (steps.report == Steps::Report::kFailure) ++_failures;
    if (steps.output == Steps::Output::kHold) _isReleased = false;
    if (steps.output == Steps::Output::kRelease) _isReleased = true;
    if (_isReleased) _shown = _state.GetLast();
    EXPECT_TRUE(steps.unsavedSince.value_or(1) != 0 || _state.GetSynced() == _state.GetLast());
  }

  void Show(Ticket ticket) { _shown = std::max(_shown, ticket); }

  // The last change that a power cut leaves for sure.
  Ticket FindDurable() const {
    Ticket durable = _snapshotLast;
    for (const auto& [number, journal] : _journals) {
      if (journal.isInPlace) durable = std::max(durable, journal.synced);
    }
    return durable;
  }

  // Unless the disk failed, or is not to be waited for. What was shown while it failed is not durable for that alone.
  void CheckThatShownIsDurable() {
    if (_isReleased) {
      _shownUnsafely = _shown;
    } else if (_isAlways && _shown > _shownUnsafely) {
      EXPECT_LE(_shown, FindDurable());
    }
  }

  // Each change is on the disk, in the journal, or will be in a snapshot.
  void CheckThatNothingIsForgotten() const {
    const Ticket last = _state.GetLast();
    const auto journal = _journals.find(Current());
    const bool isInJournal = journal != _journals.end() && journal->second.written == last;
    EXPECT_TRUE(isInJournal || last <= _state.GetSynced() || _state.GetSnapshotTime() || _state.IsSnapshotting());
  }

  void CheckPhase() const {
    using Phase = UserLayerState::Phase;
    const Phase phase = _state.GetPhase();
    EXPECT_FALSE(phase == Phase::kNoSnapshot && _state.GetSnapshotId().generation != 0);
    EXPECT_FALSE((phase == Phase::kNoSnapshot || _state.HasFailed()) && Current() != 0);
    EXPECT_LE(_state.GetSynced(), _state.GetLast());
    EXPECT_TRUE(phase != Phase::kFailed || _state.GetSnapshotTime());
    const bool waitsForNothing = !_isAlways && _state.GetSnapshotId().generation != 0;
    EXPECT_EQ(_isReleased, _state.HasFailed() || waitsForNothing);
  }

  const bool _isAlways;
  std::mt19937 _random;
  const UserLayerState::Clock::time_point _now{std::chrono::hours(1)};
  UserLayerState _state;
  std::map<JournalNames::Number, ModelJournal> _journals;
  std::optional<UserLayerState::Sync> _sync;
  UserLayerState::SnapshotBegin _begin;
  bool _isWritten = false;
  Ticket _snapshotLast = 0;  // of the snapshot at FILE
  bool _isReleased = false;
  Ticket _shown = 0;
  Ticket _shownUnsafely = 0;
  size_t _snapshots = 0;
  size_t _failures = 0;
};

}  // namespace

class UserLayerHistories : public testing::TestWithParam<daemon::Durability> {};

TEST_P(UserLayerHistories, KeepWhatWasShownAndForgetNothing) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  size_t snapshots = 0;
  size_t failures = 0;
  for (unsigned int number = 0; number < kHistories && !HasFailure(); ++number) {
    SCOPED_TRACE("history " + std::to_string(number));
    RandomHistory history(GetParam(), seed + number);
    for (int event = 0; event < kEvents && !HasFailure(); ++event) history.MakeEvent();
    snapshots += history.CountSnapshots();
    failures += history.CountFailures();
  }
  EXPECT_GT(snapshots, kHistories);
  EXPECT_GT(failures, kHistories);
}

std::string NameOfDurability(const testing::TestParamInfo<daemon::Durability>& info) {
  constexpr const char* kNames[] = {"Always", "Interval", "None"};
  return kNames[static_cast<size_t>(info.param.kind)];
}

INSTANTIATE_TEST_SUITE_P(Of, UserLayerHistories, testing::Values(kAlways, kHourly, kNever), NameOfDurability);

}  // namespace tavix::test
