// What SnapshotWriter calls of SharedUserLayer.

#include <algorithm>
#include <exception>
#include <utility>

#include "programs/server/persistence/LargeChange.h"
#include "programs/server/persistence/SaveFailure.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "programs/server/trials/SharedTrials.h"

namespace tavix::daemon {

SnapshotWork SharedUserLayer::AwaitSnapshotWork() {
  osa::PlainMutexLock lock(_mutex);
  while (!_state.IsStopping()) {
    const Clock::time_point now = Clock::now();
    _watch.Look(now);
    if (!_log.IsEmpty()) return SnapshotWork::kLog;
    const std::optional<Clock::time_point> snapshot = _state.GetSnapshotTime();
    const std::optional<Clock::time_point> look = _watch.GetNextLook();
    if (snapshot && now >= *snapshot) return SnapshotWork::kSnapshot;
    if (!snapshot && !look) {
      lock.Wait(_wakeSnapshot);
    } else {
      lock.WaitUntil(_wakeSnapshot, snapshot && look ? std::min(*snapshot, *look) : snapshot ? *snapshot : *look);
    }
  }
  return SnapshotWork::kStop;
}

bool SharedUserLayer::RemoveUselessJournal(UserSettingsFiles& files) {
  const osa::PlainMutexLock names(_nameMutex);
  {
    const osa::PlainMutexLock lock(_mutex);
    if (!_state.GetNames().TakeUselessName()) return false;
    _failedJournal.reset();
  }
  files.RemoveNewJournal();
  return true;
}

void SharedUserLayer::BeginToNote() {
  const osa::PlainMutexLock lock(_mutex);
  _notes.GetChanged().Begin();
}

ChangedGroups::Changes SharedUserLayer::TakeChanges() {
  const osa::PlainMutexLock lock(_mutex);
  return _notes.GetChanged().TakeChanges();
}

SnapshotMoment SharedUserLayer::BeginSnapshot() {
  const osa::PlainMutexLock lock(_mutex);
  WriteBatch();
  SnapshotMoment moment;
  if (_setup.trials) moment.trials = _setup.trials->BeginSnapshot();
  const UserLayerState::SnapshotBegin begin = _state.OnSnapshotBegun();
  moment.entries = _history.FindUnsynced();
  _history.BeginSnapshot();
  moment.revision = _history.GetLast();
  moment.last = begin.last;
  moment.end.generation = begin.generation;
  moment.end.journalFollows = begin.journalFollows;
  if (begin.journalFollows != 0) moment.end.journalEnd = _journal ? _journal->GetEnd() : kJournalHeaderSize;
  return moment;
}

HistoryItems SharedUserLayer::GetHistoryUpTo(uint64_t revision) {
  const osa::PlainMutexLock lock(_mutex);
  return _history.GetUpTo(revision);
}

void SharedUserLayer::DropHistoryUpTo(uint64_t revision) {
  const osa::PlainMutexLock lock(_mutex);
  _history.DropUpTo(revision);
}

HistoryItems SharedUserLayer::FindHistoryBelow(uint64_t revision, size_t maxBytes) {
  const osa::PlainMutexLock lock(_mutex);
  return _history.FindBelow(revision, maxBytes);
}

HistoryState SharedUserLayer::GetHistoryState() {
  const osa::PlainMutexLock lock(_mutex);
  return _history.GetState();
}

void SharedUserLayer::GiveRoomBack(size_t snapshotBytes) {
  const osa::PlainMutexLock lock(_mutex);
  WriteBatch();
  for (const std::shared_ptr<Journal>& journal : {_journal, _failedJournal}) {
    try {
      // One that failed never goes on, and needs no spare room.
      if (journal) journal->GiveRoomBack(journal == _failedJournal || snapshotBytes <= Journal::kSpare);
    } catch (const std::exception& exception) {
      _log.AddWarning(ReasonOf(exception));
    }
  }
}

// What was synced so far stays, and the journal goes on if there is one.
void SharedUserLayer::FailSnapshot(const char* reason) {
  _setup.onSave(false, 0);
  const osa::PlainMutexLock lock(_mutex);
  _notes.GetChanged().End();
  if (_setup.trials) _setup.trials->FailSnapshot();
  if (_journal) _journal->FillAgain();
  Perform(_state.OnSnapshotFailed(Clock::now()), reason);
}

bool SharedUserLayer::NeedsNextJournal() {
  const osa::PlainMutexLock lock(_mutex);
  const bool hasTrialLines = _setup.trials && !_setup.trials->GetUnjournaledByNext().empty();
  return _notes.GetChanged().Count() > 0 || hasTrialLines || (_journal && !_state.IsStopping());
}

// The current journal takes its place first, synced or not: its name on the way is the next one's.
std::shared_ptr<Journal> SharedUserLayer::CreateNextJournal(const SnapshotId& snapshot) {
  if (const std::shared_ptr<Journal> journal = GetJournal()) TakePlaceNamed(*journal);
  std::shared_ptr<Journal> next = Journal::Create(_setup.files, _setup.path, snapshot);
  const osa::PlainMutexLock lock(_mutex);
  _state.GetNames().OnNextCreated();
  return next;
}

bool SharedUserLayer::MustBeSyncedBehind(const UserLayerState::Snapshot& snapshot) {
  const osa::PlainMutexLock lock(_mutex);
  return _state.MustBeSyncedBehind(snapshot.last);
}

void SharedUserLayer::TakePlaceNamed(Journal& journal) {
  journal.TakePlace();
  const osa::PlainMutexLock lock(_mutex);
  _state.GetNames().OnTookPlace(_state.GetNames().GetOwner());
}

void SharedUserLayer::TakeOver() {
  const osa::PlainMutexLock lock(_mutex);
  _state.OnTakeOver();
}

std::optional<SharedUserLayer::Ticket> SharedUserLayer::CloseChanges(ChangeInParts& change, const LayerView& layer,
                                                                     bool isLast) {
  const osa::PlainMutexLock lock(_mutex);
  if (_notes.GetChanged().Count() > kFewGroups && !isLast) return std::nullopt;
  change.Add(_notes.GetChanged().TakeChanges());
  while (change.MakePart(layer)) continue;
  std::string lines;
  if (_setup.trials) lines = _setup.trials->GetUnjournaledByNext();
  change.SetHistory(lines + _history.GetUnjournaledByNext());
  if (_setup.trials) _setup.trials->OnNextJournaled();
  _history.OnNextJournaled();
  return _state.GetLast();
}

void SharedUserLayer::Follow(const UserLayerState::Snapshot& snapshot, std::shared_ptr<Journal> next, Ticket last) {
  const osa::PlainMutexLock lock(_mutex);
  if (next) next->Begin();
  _journal = std::move(next);
  _failedJournal.reset();
  // Under the lock: the next change may open a journal of that name.
  if (!_journal && _state.GetNames().TakeUselessName()) RemoveQuietly(_setup.files, Journal::NewPathOf(_setup.path));
  _notes.FollowSnapshot();
  _history.Follow();
  if (_setup.trials) _setup.trials->Follow();
  const JournalNames::Number number = _journal ? _state.GetNames().GetOwner() : 0;
  Perform(_state.OnFollowed(snapshot, number, last, _journal ? _journal->GetEnd() : 0));
}

void SharedUserLayer::FailToFollow(const UserLayerState::Snapshot& snapshot, const char* reason,
                                   UserSettingsFiles& files) {
  bool mayRemove = false;
  {
    const osa::PlainMutexLock lock(_mutex);
    mayRemove = _state.GetNames().ReleaseNext();
    _notes.GetChanged().End();
    if (_setup.trials) _setup.trials->FailSnapshot();
    if (_journal) _journal->FillAgain();
    Perform(_state.OnFollowFailed(snapshot, Clock::now()), reason);
  }
  if (mayRemove) files.RemoveNewJournal();
}

void SharedUserLayer::RemoveOldJournal() {
  const osa::PlainMutexLock lock(_mutex);
  if (!_journal) RemoveQuietly(_setup.files, Journal::PathOf(_setup.path));
}

}  // namespace tavix::daemon
