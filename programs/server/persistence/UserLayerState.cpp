#include "programs/server/persistence/UserLayerState.h"

#include <algorithm>
#include <utility>

namespace tavix::daemon {

UserLayerState::Steps UserLayerState::Load(const Found& found) {
  Steps steps;
  _snapshot.id = found.snapshot;
  _snapshot.bytes = found.snapshotBytes;
  _nextGeneration = found.nextGeneration;
  _phase = HasSnapshot() ? Phase::kJournalling : Phase::kNoSnapshot;
  _isSnapshotDue = found.mustBeWritten;
  if (found.hasJournal) _names.OnFound(found.isInPlace);
  _journalFollows = found.journalFollows;
  ReleaseUnlessAlways(steps);
  return steps;
}

// A change that is in memory only is shown to nobody, unless the disk has failed.
UserLayerState::Steps UserLayerState::OnChange(Size size, Clock::time_point now, std::time_t time, bool mustBeSynced) {
  std::optional<std::time_t> unsavedSince;
  if (_changes.synced == _changes.last) {
    _changes.firstUnsynced = now;
    unsavedSince = time;
  }
  ++_changes.last;
  if (mustBeSynced && !HasFailed()) {
    if (!AwaitsSync()) _changes.firstToBeSynced = _changes.last;
    _changes.toBeSynced = _changes.last;
  }
  Steps steps = size == Size::kUnknown ? Fail(now) : FindWrite(size);
  steps.holdsChange = steps.holdsChange || AwaitsSync();
  steps.unsavedSince = unsavedSince;
  return steps;
}

UserLayerState::Steps UserLayerState::FindWrite(Size size) {
  Steps steps;
  if (!CanAppend()) {
    steps.holdsChange = !HasFailed();
    if (!IsSnapshotting()) RequestSnapshot(steps);
  } else if (_changes.areLate || size == Size::kLarge) {
    steps.write = Steps::Write::kLater;
    steps.holdsChange = steps.wakesSync = _changes.areLate = true;
  } else {
    steps.write = HasJournal() ? Steps::Write::kAppend : Steps::Write::kOpenJournal;
  }
  return steps;
}

void UserLayerState::OnOpened() {
  _names.OnOpened();
  _journalFollows = _snapshot.id.generation;
}

UserLayerState::Steps UserLayerState::OnAppended(uint64_t journalEnd) {
  return OnLateWritten(OnLateWriteBegun(), journalEnd);
}

UserLayerState::Steps UserLayerState::OnLateWritten(const LateWrite& write, uint64_t journalEnd) {
  Steps steps;
  // What went into a journal that was given up or replaced meanwhile counts for nothing.
  if (write.journal != _names.GetCurrent()) return steps;
  _changes.written = std::max(_changes.written, write.last);
  if (_changes.written == _changes.last && !_changes.arePaused) _changes.areLate = false;
  ShowWrittenUnlessAlways(steps);
  if (!IsSnapshotting()) RequestSnapshotIfLong(journalEnd, steps);
  steps.wakesSync = _durability.kind != Durability::Kind::kNone || AwaitsSync();
  ReportRecovery(steps);
  return steps;
}

std::optional<UserLayerState::Steps> UserLayerState::OnLateWriteFailed(const LateWrite& write, Clock::time_point now) {
  if (write.journal != _names.GetCurrent()) return std::nullopt;
  return Fail(now);
}

UserLayerState::Sync UserLayerState::OnSyncBegun(Clock::time_point now, std::time_t time) {
  _changes.firstUnsynced = now;  // no change that is made from now on is older
  return {_names.GetCurrent(), _changes.written, time};
}

UserLayerState::Steps UserLayerState::OnSynced(const Sync& sync) {
  Steps steps;
  const bool wasAwaited = AwaitsSync();
  _changes.synced = std::max(_changes.synced, sync.last);
  if (wasAwaited && !AwaitsSync()) ShowWrittenUnlessAlways(steps);
  // Changes that are not synced now were made after the sync began.
  steps.unsavedSince = _changes.synced == _changes.last ? 0 : sync.begun;
  // A disk that takes syncs and no snapshots is not well yet: the pauses between tries stay long.
  if (!_isSnapshotDue && !IsSnapshotting()) _retry.OnSuccess();
  ReportRecovery(steps);
  return steps;
}

std::optional<UserLayerState::Steps> UserLayerState::OnSyncFailed(const Sync& sync, Clock::time_point now) {
  if (sync.journal != _names.GetCurrent()) return std::nullopt;
  return Fail(now);
}

UserLayerState::SnapshotBegin UserLayerState::OnSnapshotBegun() {
  SnapshotBegin begin;
  begin.generation = _nextGeneration++;
  begin.last = _changes.last;
  if (_phase == Phase::kJournalling) begin.journalFollows = HasJournal() ? _journalFollows : _snapshot.id.generation;
  _phaseOnFailure = std::exchange(_phase, Phase::kSnapshotting);
  _isSnapshotDue = false;
  return begin;
}

UserLayerState::Steps UserLayerState::OnSnapshotFailed(Clock::time_point now) {
  if (IsSnapshotting()) _phase = _phaseOnFailure;
  const bool isInNoJournal = !HasJournal() && _changes.written < _changes.last;  // what was changed meanwhile
  if (_phase != Phase::kJournalling || isInNoJournal) return Fail(now);
  Steps steps;
  steps.report = Steps::Report::kJournalGoesOn;
  RetryLater(now, steps);
  return steps;
}

// What the journal before gets behind the last change that the next one holds would be lost with it.
void UserLayerState::OnTakeOver() {
  if (CanAppend()) _changes.areLate = _changes.arePaused = true;
}

UserLayerState::Steps UserLayerState::OnFollowed(const Snapshot& snapshot, JournalNumber next, Ticket last,
                                                 uint64_t journalEnd) {
  Steps steps;
  _names.OnReplaced(next);
  _journalFollows = snapshot.id.generation;
  _changes.written = std::max(snapshot.last, last);
  // Resume, which Follow calls, finds out whether there are any behind "last".
  _changes.areLate = true;
  Follow(snapshot, steps);
  if (next != 0) RequestSnapshotIfLong(journalEnd, steps);  // so much was changed meanwhile
  return steps;
}

UserLayerState::Steps UserLayerState::OnFollowFailed(const Snapshot& snapshot, Clock::time_point now) {
  if (!HasJournal()) {
    _phase = _phaseOnFailure;
    return Fail(now);
  }
  Steps steps;
  Follow(snapshot, steps);
  steps.report = Steps::Report::kJournalGoesOn;
  RetryLater(now, steps);
  return steps;
}

bool UserLayerState::IsLateWriteDue() const {
  return CanAppend() && _changes.areLate && !_changes.arePaused && _changes.written < _changes.last;
}

std::optional<UserLayerState::Clock::time_point> UserLayerState::GetSyncTime() const {
  const bool isNeeded = HasJournal() && _changes.synced < _changes.written;
  if (!isNeeded) return std::nullopt;
  if (_durability.kind == Durability::Kind::kAlways || AwaitsSync()) return Clock::time_point();
  if (_durability.kind == Durability::Kind::kNone) return std::nullopt;
  return _changes.firstUnsynced + _durability.interval;
}

std::optional<UserLayerState::Clock::time_point> UserLayerState::GetSnapshotTime() const {
  if (!_isSnapshotDue) return std::nullopt;
  return _retry.GetNextTry();
}

bool UserLayerState::IsSaved() const {
  return !HasFailed() && HasSnapshot() && GetSaved() == _changes.last;
}

UserLayerState::Ticket UserLayerState::GetSaved() const {
  return _durability.kind == Durability::Kind::kNone ? _changes.written : _changes.synced;
}

// The journal is given up: nobody knows what a file holds whose write or sync failed. Nobody was shown what is in a
// journal that has not taken its place, when output waits for its sync: then nobody needs that file.
UserLayerState::Steps UserLayerState::Fail(Clock::time_point now) {
  Steps steps;
  _names.OnGivenUp(_durability.kind != Durability::Kind::kAlways);
  _changes.areLate = _changes.arePaused = false;
  _changes.toBeSynced = 0;
  steps.output = Steps::Output::kRelease;
  steps.shown = _changes.last;
  steps.report = HasFailed() ? Steps::Report::kFailedRetry : Steps::Report::kFailure;
  (IsSnapshotting() ? _phaseOnFailure : _phase) = Phase::kFailed;
  _recoveryTicket.reset();
  RetryLater(now, steps);
  return steps;
}

void UserLayerState::Follow(const Snapshot& snapshot, Steps& steps) {
  const bool hadFailed = HasFailed();
  _phase = Phase::kJournalling;
  _isSnapshotDue = false;
  _snapshot = snapshot;
  _changes.synced = std::max(_changes.synced, snapshot.last);
  Resume(steps);
  if (hadFailed) {
    _recoveryTicket = _changes.last;
    steps.output = Steps::Output::kHold;
  }
  ReportRecovery(steps);
  if (_changes.synced == _changes.last) {
    _retry.OnSuccess();
    steps.unsavedSince = 0;
  } else {
    steps.wakesSync = true;
  }
  ReleaseUnlessAlways(steps);
}

// Changes are written again as they come, unless some still have to be written later.
void UserLayerState::Resume(Steps& steps) {
  _changes.arePaused = false;
  _changes.areLate = _changes.areLate && _changes.written < _changes.last;
  steps.wakesSync = _changes.areLate;
}

void UserLayerState::RetryLater(Clock::time_point now, Steps& steps) {
  _retry.OnFailure(now);
  RequestSnapshot(steps);
}

void UserLayerState::RequestSnapshot(Steps& steps) {
  _isSnapshotDue = true;
  steps.wakesSnapshot = true;
}

void UserLayerState::RequestSnapshotIfLong(uint64_t journalEnd, Steps& steps) {
  if (journalEnd > std::max<uint64_t>(_snapshot.bytes, _minJournal)) RequestSnapshot(steps);
}

// Until a snapshot stands that a journal can follow, a change is in memory only: to show it would promise too much,
// whatever the durability is.
void UserLayerState::ReleaseUnlessAlways(Steps& steps) const {
  if (_durability.kind == Durability::Kind::kAlways || !HasSnapshot()) return;
  steps.output = Steps::Output::kRelease;
  steps.shown = FindShownUnlessAlways();
}

// A crash of the daemon takes nothing back that is written.
void UserLayerState::ShowWrittenUnlessAlways(Steps& steps) const {
  if (_durability.kind != Durability::Kind::kAlways) steps.shown = FindShownUnlessAlways();
}

// What comes behind a change that waits for its sync waits, too: tickets become durable in their order. Of several such
// changes the first counts; once it is synced, all that is not waits for the last.
UserLayerState::Ticket UserLayerState::FindShownUnlessAlways() const {
  if (!AwaitsSync()) return _changes.written;
  return std::min(_changes.written, std::max(_changes.synced, _changes.firstToBeSynced - 1));
}

// The changes up to this one were shown without the disk; those behind it are held until the disk has them.
void UserLayerState::ReportRecovery(Steps& steps) {
  if (!_recoveryTicket || GetSaved() < *_recoveryTicket) return;
  _recoveryTicket.reset();
  steps.reportsRecovery = steps.wakesSnapshot = true;
}

}  // namespace tavix::daemon
