#include <ctime>
#include <exception>

#include "programs/server/persistence/SaveFailure.h"
#include "programs/server/persistence/SharedUserLayer.h"

// When the journal is synced, and what a sync does.

namespace tavix::daemon {

namespace {

// A client that has so many changes in one batch does not wait for each; then its loop rather goes on beside the sync.
constexpr SharedUserLayer::Ticket kMaxInBatch = 4;

}  // namespace

// A thread that waits until some time finds by itself what is due then.
bool SharedUserLayer::MustWakeSync() const {
  if (_syncSleepsUntil == Clock::time_point() || _syncsInBatch) return false;
  const std::optional<Clock::time_point> time = FindSyncTime();
  return (time && *time < _syncSleepsUntil) || _state.IsLateWriteDue();
}

std::optional<SharedUserLayer::Clock::time_point> SharedUserLayer::FindSyncTime() const {
  if (_syncsInBatch) return std::nullopt;
  const std::optional<Clock::time_point> time = _state.GetSyncTime();
  if (!time || _setup.durability.kind != Durability::Kind::kAlways) return time;
  return _gather.FindBegin(_state.GetWritten());
}

JournalWork SharedUserLayer::AwaitJournalWork() {
  osa::PlainMutexLock lock(_mutex);
  while (!_state.IsStopping()) {
    const std::optional<Clock::time_point> time = FindSyncTime();
    if (time && Clock::now() >= *time) return JournalWork::kSync;
    if (_state.IsLateWriteDue() && !_syncsInBatch) return JournalWork::kWrite;
    _syncSleepsUntil = time.value_or(Clock::time_point::max());
    if (time) {
      lock.WaitUntil(_wakeSync, *time);
    } else {
      lock.Wait(_wakeSync);
    }
    _syncSleepsUntil = Clock::time_point();
  }
  return JournalWork::kStop;
}

// No lock of the store is held: other changes may have come.
void SharedUserLayer::OnBatchEnd(const ChangeBatch::MayWait& mayWait) noexcept {
  std::optional<SyncRound> round;
  {
    const Clock::time_point now = mayWait ? Clock::now() : Clock::time_point();
    const osa::PlainMutexLock lock(_mutex);
    WriteBatch();
    if (mayWait && MaySyncInBatch(now) && mayWait()) {
      _syncsInBatch = true;
      round = TryToBeginSync(now);
    } else if (MustWakeSync()) {
      _wakeSync.notify_one();
    }
  }
  if (round) SyncInBatch(*round);
}

// "JournalSync" would do so at once, and has nothing else to do. A journal that is new is left to it: what gives that
// its place may wait for a snapshot.
bool SharedUserLayer::MaySyncInBatch(Clock::time_point now) const {
  if (_setup.durability.kind != Durability::Kind::kAlways || _state.IsStopping()) return false;
  if (_syncsInBatch || _syncSleepsUntil == Clock::time_point() || _state.IsLateWriteDue()) return false;
  if (!_journal || _syncedJournal != _state.GetNames().GetCurrent() || !_gather.MayBeInBatch()) return false;
  const std::optional<Clock::time_point> time = FindSyncTime();
  return time && *time <= now && _state.GetWritten() - _state.GetSynced() <= kMaxInBatch;
}

void SharedUserLayer::SyncInBatch(const SyncRound& round) noexcept {
  try {
    round.journal->SyncRecords();
  } catch (const std::exception& exception) {
    OnSyncFailed(round, ReasonOf(exception));
    return EndSyncInBatch();
  }
  OnSynced(round);
  EndSyncInBatch();
}

// There may be changes of others by now.
void SharedUserLayer::EndSyncInBatch() {
  const osa::PlainMutexLock lock(_mutex);
  _syncsInBatch = false;
  if (MustWakeSync()) _wakeSync.notify_one();
}

std::optional<SyncRound> SharedUserLayer::BeginSync() {
  const Clock::time_point now = Clock::now();
  const osa::PlainMutexLock lock(_mutex);
  WriteBatch();
  return TryToBeginSync(now);
}

std::optional<SyncRound> SharedUserLayer::TryToBeginSync(Clock::time_point now) {
  if (!_state.GetSyncTime()) return std::nullopt;
  _gather.OnBegun(now, _state.GetWritten());
  if (_watch.Begin(now)) _wakeSnapshot.notify_one();
  return SyncRound{_journal, _state.OnSyncBegun(now, std::time(nullptr)), _history.GetJournaled()};
}

bool SharedUserLayer::TakePlace(const SyncRound& round) {
  if (round.journal->IsInPlace()) return true;
  const osa::PlainMutexLock names(_nameMutex);
  {
    const osa::PlainMutexLock lock(_mutex);
    if (!_state.GetNames().MayTakePlace(round.sync.journal)) return round.journal->IsInPlace();
  }
  round.journal->TakePlace();
  const osa::PlainMutexLock lock(_mutex);
  _state.GetNames().OnTookPlace(round.sync.journal);
  return true;
}

void SharedUserLayer::OnSynced(const SyncRound& round) {
  _setup.onSave(true, 0);
  {
    const osa::PlainMutexLock lock(_mutex);
    _gather.OnEnded(Clock::now(), _state.GetWritten());
  }
  _gate.SetDurable(round.sync.last);
  const osa::PlainMutexLock lock(_mutex);
  _gather.OnReleased(Clock::now());
  EndDiskWork();
  _syncedJournal = round.sync.journal;
  if (round.journal == _journal) _history.OnSynced(round.revision);
  Perform(_state.OnSynced(round.sync));
}

void SharedUserLayer::OnSyncFailed(const SyncRound& round, const char* reason) {
  const osa::PlainMutexLock lock(_mutex);
  EndDiskWork();
  const std::optional<Steps> steps = _state.OnSyncFailed(round.sync, Clock::now());
  if (!steps) return;
  _setup.onSave(false, 0);
  Perform(*steps, reason);
}

void SharedUserLayer::OnSyncUseless() {
  const osa::PlainMutexLock lock(_mutex);
  EndDiskWork();
}

// There is something to log when the disk has hung.
void SharedUserLayer::EndDiskWork() {
  if (_watch.End()) _wakeSnapshot.notify_one();
}

}  // namespace tavix::daemon
