#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "programs/server/persistence/UserLayerState.h"
#include "tests/programs/server/persistence/PersistedStore.h"

// UserLayerState beside a model of a disk, through random histories in which a write or a sync, and a snapshot, are
// under way at any time, and everything may fail.

namespace tavix::test {

using daemon::JournalNames;
using daemon::UserLayerState;
using Phase = UserLayerState::Phase;
using Size = UserLayerState::Size;
using Steps = UserLayerState::Steps;
using Ticket = UserLayerState::Ticket;
using Tickets = std::set<Ticket>;

namespace {

constexpr unsigned int kHistories = 300;
constexpr int kEvents = 400;
constexpr uint64_t kLongJournal = 1'000'000;

// Which changes a journal's file holds.
struct ModelJournal {
  Tickets written;
  Tickets synced;
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
        AdvanceJournal();
        break;
      default:
        AdvanceSnapshot();
    }
    CheckThatShownIsSafe();
    CheckThatNothingIsForgotten();
    CheckPhase();
  }

  size_t CountSnapshots() const { return _snapshots; }
  size_t CountFailures() const { return _failures; }
  size_t CountLateWrites() const { return _lateWrites; }
  size_t CountRecoveries() const { return _recoveries; }

 private:
  enum class Step { kNone, kBegun, kWritten, kNextCreated, kTakingOver, kClosed };  // of a snapshot

  size_t Below(size_t limit) { return _random() % limit; }
  bool Fails() { return Below(15) == 0; }
  JournalNames::Number Current() const { return _state.GetNames().GetCurrent(); }

  void MakeChange() {
    const Size size = Below(20) == 0 ? Size::kUnknown : Below(5) == 0 ? Size::kLarge : Size::kSmall;
    const bool mustBeSynced = Below(10) == 0;
    const Steps steps = _state.OnChange(size, _now, 1, mustBeSynced);
    const Ticket ticket = _state.GetLast();
    if (mustBeSynced) _toBeSynced.insert(ticket);
    if (_isReleased && !steps.holdsChange) Show(ticket);
    if (_step != Step::kNone) _noted.insert(ticket);
    if (steps.write == Steps::Write::kLater) _pending.insert(ticket);
    Perform(steps);
    if (steps.write != Steps::Write::kAppend && steps.write != Steps::Write::kOpenJournal) return;
    if (Fails()) return Perform(_state.OnAppendFailed(_now));
    if (steps.write == Steps::Write::kOpenJournal) Open();
    Append({ticket});
  }

  void Open() {
    ExpectNameIsFree();
    _state.OnOpened();
    _journals[Current()];
  }

  void Append(const Tickets& tickets) {
    _journals[Current()].written.insert(tickets.begin(), tickets.end());
    Perform(_state.OnAppended(Below(10) == 0 ? kLongJournal : 1));
  }

  // A journal may be made only while no other that is needed has the name.
  void ExpectNameIsFree() const {
    const JournalNames::Number owner = _state.GetNames().GetOwner();
    EXPECT_FALSE(owner != 0 && owner == Current());
  }

  // One thread writes later, and syncs.
  void AdvanceJournal() {
    if (_late) return EndLateWrite();
    if (_sync) return EndSync();
    if (_state.IsLateWriteDue() && Below(2) == 0) return BeginLateWrite();
    if (_state.GetSyncTime()) _sync = _state.OnSyncBegun(_now, 1);
  }

  void BeginLateWrite() {
    ++_lateWrites;
    if (Current() == 0) Open();
    _record.swap(_pending);
    _pending.clear();
    if (Below(2) == 0) return Append(_record);
    _late = _state.OnLateWriteBegun();
  }

  void EndLateWrite() {
    const UserLayerState::LateWrite late = *_late;
    _late.reset();
    if (Fails()) {
      if (const auto steps = _state.OnLateWriteFailed(late, _now)) Perform(*steps);
    } else {
      _journals.at(late.journal).written.insert(_record.begin(), _record.end());
      Perform(_state.OnLateWritten(late, 1));
    }
  }

  void EndSync() {
    const UserLayerState::Sync sync = *_sync;
    ModelJournal& journal = _journals.at(sync.journal);
    _sync.reset();
    if (Fails()) {
      if (const auto steps = _state.OnSyncFailed(sync, _now)) Perform(*steps);
      return;
    }
    journal.synced = journal.written;
    if (!journal.isInPlace && !TakePlace(sync.journal)) return;
    Show(sync.last);
    Perform(_state.OnSynced(sync));
  }

  // The journal that had the place is gone then.
  bool TakePlace(JournalNames::Number journal) {
    if (!_state.GetNames().MayTakePlace(journal)) return false;
    _state.GetNames().OnTookPlace(journal);
    for (auto& other : _journals) other.second.isInPlace = false;
    _journals.at(journal).isInPlace = true;
    return true;
  }

  void AdvanceSnapshot() {
    switch (_step) {
      case Step::kNone:
        if (_state.GetSnapshotTime() || Below(8) == 0) BeginSnapshot();
        break;
      case Step::kBegun:
        if (Fails()) return FailSnapshot();
        _step = Step::kWritten;
        _snapshotLast = _begin.last;
        ++_snapshots;
        break;
      case Step::kWritten:
        if (Current() == 0 && _noted.empty()) return Follow(0, _begin.last);
        CreateNext();
        break;
      case Step::kNextCreated:
        if (Fails()) return FailToFollow();
        _state.OnTakeOver();
        _step = Step::kTakingOver;
        break;
      case Step::kTakingOver:
        _nextContent.insert(_noted.begin(), _noted.end());
        _noted.clear();
        _nextLast = _state.GetLast();
        _step = Step::kClosed;
        break;
      case Step::kClosed:
        if (Fails()) return FailToFollow();
        _journals[_next].written = _nextContent;
        Follow(_next, _nextLast);
    }
  }

  void BeginSnapshot() {
    if (Fails()) return FailSnapshot();
    _begin = _state.OnSnapshotBegun();
    _noted.clear();
    _step = Step::kBegun;
  }

  void FailSnapshot() {
    _step = Step::kNone;
    Perform(_state.OnSnapshotFailed(_now));
  }

  // Some of what was noted is in the next journal early.
  void CreateNext() {
    if (Current() != 0) TakePlace(Current());
    ExpectNameIsFree();
    _next = _state.GetNames().OnNextCreated();
    _nextContent.swap(_noted);
    _noted.clear();
    _step = Step::kNextCreated;
  }

  UserLayerState::Snapshot GetSnapshot() const { return {{_begin.generation, 1}, 1000, _begin.last}; }

  void Follow(JournalNames::Number next, Ticket last) {
    _step = Step::kNone;
    _pending.swap(_noted);
    _noted.clear();
    if (next == 0) _state.GetNames().TakeUselessName();
    Perform(_state.OnFollowed(GetSnapshot(), next, last, 1));
    Show(_begin.last);
  }

  void FailToFollow() {
    _step = Step::kNone;
    _state.GetNames().ReleaseNext();
    Perform(_state.OnFollowFailed(GetSnapshot(), _now));
    Show(_begin.last);
  }

  void Perform(const Steps& steps) {
    if (steps.report == Steps::Report::kFailure) ++_failures;
    if (steps.output == Steps::Output::kHold) _isReleased = false;
    if (steps.output == Steps::Output::kRelease) _isReleased = true;
    Show(steps.shown);
    if (steps.reportsRecovery) CheckThatAllIsSavedAgain();
    if (!_state.AreChangesLate()) _pending.clear();
    EXPECT_TRUE(steps.unsavedSince.value_or(1) != 0 || _state.GetSynced() == _state.GetLast());
  }

  void Show(Ticket ticket) { _shown = std::max(_shown, ticket); }

  // The first change that neither the snapshot nor these hold.
  Ticket FindFirstMissing(const Tickets& tickets) const {
    Ticket missing = _snapshotLast + 1;
    while (tickets.count(missing) != 0) ++missing;
    return missing;
  }

  // What is found after a power cut, or after a crash of the daemon alone. A new journal that has begun counts then.
  Tickets FindSafe() const {
    const auto current = _journals.find(Current());
    if (!_isAlways && current != _journals.end()) return current->second.written;
    for (const auto& [number, journal] : _journals) {
      if (journal.isInPlace) return _isAlways ? journal.synced : journal.written;
    }
    return {};
  }

  // After a power cut.
  Tickets FindSynced() const {
    for (const auto& [number, journal] : _journals) {
      if (journal.isInPlace) return journal.synced;
    }
    return {};
  }

  // But for what was shown because the disk failed.
  void CheckThatShownIsSafe() {
    if (_state.HasFailed()) {
      _shownUnsafely = _shown;
    } else if (_shown > _shownUnsafely) {
      EXPECT_LT(_shown, FindFirstMissing(FindSafe()));
      CheckThatWhatMustBeIsSynced();
    }
  }

  void CheckThatWhatMustBeIsSynced() const {
    const auto next = _toBeSynced.upper_bound(_shown);
    if (next == _toBeSynced.begin()) return;
    const Ticket last = *std::prev(next);
    if (last > _shownUnsafely) {
      EXPECT_LT(last, FindFirstMissing(FindSynced()));
    }
  }

  // What was shown because the disk failed, too.
  void CheckThatAllIsSavedAgain() {
    ++_recoveries;
    EXPECT_FALSE(_state.HasFailed());
    EXPECT_LT(_shown, FindFirstMissing(FindSafe()));
  }

  // Each change is in the snapshot or its journal, will be written, or will be in a snapshot.
  void CheckThatNothingIsForgotten() const {
    if (_state.GetSnapshotTime() || _state.HasFailed() || _step == Step::kBegun) return;
    Tickets known = _pending;
    known.insert(_noted.begin(), _noted.end());
    if (_step > Step::kWritten) known.insert(_nextContent.begin(), _nextContent.end());
    if (_late && _late->journal == Current()) known.insert(_record.begin(), _record.end());
    const auto current = _journals.find(Current());
    if (current != _journals.end()) known.insert(current->second.written.begin(), current->second.written.end());
    if (_state.GetPhase() == Phase::kNoSnapshot) return;  // nobody was shown anything
    EXPECT_EQ(FindFirstMissing(known), std::max(_state.GetLast(), _snapshotLast) + 1);
  }

  void CheckPhase() const {
    const Phase phase = _state.GetPhase();
    EXPECT_FALSE(phase == Phase::kNoSnapshot && _state.GetSnapshotId().generation != 0);
    EXPECT_FALSE((phase == Phase::kNoSnapshot || _state.HasFailed()) && Current() != 0);
    EXPECT_LE(_state.GetSynced(), _state.GetLast());
    EXPECT_TRUE(phase != Phase::kFailed || _state.GetSnapshotTime());
    EXPECT_FALSE(_state.HasFailed() && _state.AreChangesLate());
    EXPECT_TRUE(_pending.empty() || _state.AreChangesLate());
    const bool waitsForNothing = !_isAlways && _state.GetSnapshotId().generation != 0;
    EXPECT_EQ(_isReleased, _state.HasFailed() || waitsForNothing);
  }

  const bool _isAlways;
  std::mt19937 _random;
  const UserLayerState::Clock::time_point _now{std::chrono::hours(1)};
  UserLayerState _state;
  std::map<JournalNames::Number, ModelJournal> _journals;
  std::optional<UserLayerState::Sync> _sync;
  std::optional<UserLayerState::LateWrite> _late;
  Tickets _record;      // of the late write
  Tickets _toBeSynced;  // before they are shown
  Tickets _pending;     // what the current journal lacks
  Tickets _noted;       // what the snapshot, or its next journal, lacks
  Step _step = Step::kNone;
  UserLayerState::SnapshotBegin _begin;
  JournalNames::Number _next = 0;
  Tickets _nextContent;
  Ticket _nextLast = 0;
  Ticket _snapshotLast = 0;  // of the snapshot at FILE
  bool _isReleased = false;
  Ticket _shown = 0;
  Ticket _shownUnsafely = 0;
  size_t _snapshots = 0;
  size_t _failures = 0;
  size_t _lateWrites = 0;
  size_t _recoveries = 0;
};

}  // namespace

class UserLayerHistories : public testing::TestWithParam<daemon::Durability> {};

TEST_P(UserLayerHistories, KeepWhatWasShownAndForgetNothing) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  size_t snapshots = 0;
  size_t failures = 0;
  size_t lateWrites = 0;
  size_t recoveries = 0;
  for (unsigned int number = 0; number < kHistories && !HasFailure(); ++number) {
    SCOPED_TRACE("history " + std::to_string(number));
    RandomHistory history(GetParam(), seed + number);
    for (int event = 0; event < kEvents && !HasFailure(); ++event) history.MakeEvent();
    snapshots += history.CountSnapshots();
    failures += history.CountFailures();
    lateWrites += history.CountLateWrites();
    recoveries += history.CountRecoveries();
  }
  EXPECT_GT(snapshots, kHistories);
  EXPECT_GT(failures, kHistories);
  EXPECT_GT(lateWrites, kHistories);
  EXPECT_GT(recoveries, 0u);
}

std::string NameOfDurability(const testing::TestParamInfo<daemon::Durability>& info) {
  constexpr const char* kNames[] = {"Always", "Interval", "None"};
  return kNames[static_cast<size_t>(info.param.kind)];
}

INSTANTIATE_TEST_SUITE_P(Of, UserLayerHistories, testing::Values(kAlways, kHourly, kNever), NameOfDurability);

}  // namespace tavix::test
