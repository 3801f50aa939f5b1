#include "programs/server/persistence/SharedUserLayer.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "programs/server/persistence/LargeChange.h"
#include "programs/server/persistence/SaveFailure.h"
#include "programs/server/trials/SharedTrials.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

namespace {

using Size = UserLayerState::Size;

}  // namespace

SharedUserLayer::SharedUserLayer(UserLayerSetup setup)
    : _setup(std::move(setup)),
      _quotedPath("'" + _setup.path + "'"),
      _gate(true),
      _log(*core::Logger::GetLogger("UserSettings")),
      _state(_setup.durability, _setup.minJournal),
      _watch(_setup.path, _setup.longDiskWork, _log),
      _gather(_setup.gather),
      _notes(_gate),
      _history(_setup.historyBytes) {}

void SharedUserLayer::Load(FoundUserSettings& found, uint64_t historyEnd) {
  UserLayerState::Found state;
  if (!found.mustBeWritten) state.snapshot = found.snapshot;
  state.nextGeneration = found.nextGeneration;
  state.snapshotBytes = found.snapshotBytes;
  state.mustBeWritten = found.mustBeWritten;
  const osa::PlainMutexLock lock(_mutex);
  _history.Load(found.history, historyEnd);
  if (!found.mustBeWritten) _journal = std::move(found.journal);
  state.hasJournal = _journal != nullptr;
  state.isInPlace = _journal && _journal->IsInPlace();
  state.journalFollows = _journal ? _journal->GetFollowed().generation : 0;
  Perform(_state.Load(state));
}

// The gate knows the change before it is appended: nobody may see it without the ticket.
DurabilityGate::Ticket SharedUserLayer::Save(const SavedChange& saved) {
  DescribedChange history{false, std::nullopt};
  if (saved.before) history = TryToDescribeForHistory(saved);
  const bool isLarge = IsLarge(saved, history.lines);
  std::optional<Change> change;
  if (!isLarge) change = TryToDescribe(saved.userSettings, saved.changedGroups, saved.added);
  const osa::PlainMutexLock lock(_mutex);
  std::string entry;
  if (history.isDifferent) entry = _history.Add(std::move(history.lines));
  if (_setup.trials) _setup.trials->Commit(history.isDifferent ? _history.GetLast() : 0);
  if (change) change->history = std::move(entry);
  return Write(saved, std::move(change), isLarge);
}

DurabilityGate::Ticket SharedUserLayer::SaveTrial(const std::function<void()>& end) {
  static const core::IniFile none;
  const osa::PlainMutexLock lock(_mutex);
  end();
  if (_setup.trials->GetUnjournaled().empty()) return 0;  // nothing has become of it
  return Write({none, {}, none, {}}, Change(), false);
}

// The trial ends once its line is written: a disk that takes none leaves it pending.
DurabilityGate::Ticket SharedUserLayer::ConfirmTrial(const std::string& name,
                                                     const settings::server::ClientIdentity& client) {
  static const core::IniFile none;
  const osa::PlainMutexLock lock(_mutex);
  const size_t bytes = _setup.trials->PrepareConfirmation(name, client);
  Ticket ticket = 0;
  if (!_state.HasFailed()) {
    ticket = Write({none, {}, none, {}}, Change(), false, true);
    WriteBatch();
  }
  if (_state.HasFailed()) {
    _setup.trials->DropConfirmation(bytes);
    throw settings::server::RefusedChange(
        settings::server::RefusedChange::Reason::kTrial,
        "trial '" + name + "' is still pending: the disk takes no changes at the moment");
  }
  _setup.trials->Confirm(name);
  return ticket;
}

DurabilityGate::Ticket SharedUserLayer::Write(const SavedChange& saved, std::optional<Change> change, bool isLarge,
                                              bool mustBeSynced) {
  if (change && !TryToAddTrials(*change)) change.reset();
  const Size size = isLarge ? Size::kLarge : change ? Size::kSmall : Size::kUnknown;
  const Steps steps = _state.OnChange(size, Clock::now(), std::time(nullptr), mustBeSynced);
  const Ticket ticket =
      _notes.Note(saved.changedGroups, saved.added, steps.holdsChange, steps.write == Steps::Write::kLater);
  Perform(steps, kOutOfMemory);
  if (steps.write == Steps::Write::kAppend || steps.write == Steps::Write::kOpenJournal) Append(steps.write, *change);
  return ticket;
}

// A record takes along all lines about trials that the journal lacks, as a rule its own. False: memory is refused.
bool SharedUserLayer::TryToAddTrials(Change& change) {
  if (!_setup.trials) return true;
  try {
    change.history.insert(0, _setup.trials->GetUnjournaled());
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::string SharedUserLayer::SpellUnjournaled() {
  return (_setup.trials ? _setup.trials->GetUnjournaled() : std::string()) + _history.GetUnjournaled();
}

void SharedUserLayer::OnJournaled() {
  _history.OnJournaled();
  if (_setup.trials) _setup.trials->OnJournaled();
}

// In a batch it is written with the changes behind it, where nobody is shown a change before it is synced.
void SharedUserLayer::Append(Steps::Write write, const Change& change) {
  const bool isBatched = _setup.durability.kind == Durability::Kind::kAlways && ChangeBatch::Join(*this);
  try {
    if (write == Steps::Write::kOpenJournal) {
      OpenJournal({change});
    } else {
      _journal->Append(change, isBatched ? Journal::Write::kBuffered : Journal::Write::kAtOnce);
    }
    OnJournaled();
    Perform(_state.OnAppended(_journal->GetEnd()));
  } catch (const std::exception& exception) {
    Perform(_state.OnAppendFailed(Clock::now()), ReasonOf(exception));
  }
}

// Old values count as well: they are written with the new ones.
bool SharedUserLayer::IsLarge(const SavedChange& change, const std::optional<HistoryLines>& history) const {
  return (history && history->change.size() > _setup.largeChange) ||
         (_setup.trials && _setup.trials->CountPreparedBytes() > _setup.largeChange) ||
         IsLargeChange(change.userSettings, change.changedGroups, change.added, _setup.largeChange);
}

void SharedUserLayer::WriteBatch() {
  if (!_journal) return;
  try {
    _journal->WriteBuffered();
  } catch (const std::exception& exception) {
    Perform(_state.OnAppendFailed(Clock::now()), ReasonOf(exception));
  }
}

// Without durability it takes its place at once: no sync will give it one.
void SharedUserLayer::OpenJournal(const std::vector<Change>& changes) {
  _journal = Journal::Create(_setup.files, _setup.path, _state.GetSnapshotId(), changes);
  _state.OnOpened();
  if (_setup.durability.kind != Durability::Kind::kNone) return;
  _journal->TakePlace();
  _state.GetNames().OnTookPlace(_state.GetNames().GetCurrent());
}

// Output is held and released under the lock, so that both happen in the order of their events. Every event that may
// change whether all is saved leads here.
void SharedUserLayer::Perform(const Steps& steps, const char* reason) {
  _isSaved = _state.IsSaved();
  if (steps.unsavedSince && _setup.onUnsaved && _setup.durability.kind != Durability::Kind::kNone)
    _setup.onUnsaved(*steps.unsavedSince);
  if (_setup.onFailure) ReportFailure(_setup.onFailure, steps, reason);
  if (_state.GetNames().GetCurrent() == 0) GiveUpJournal();
  if (!_state.AreChangesLate()) _notes.DropPending();
  if (_setup.trials && _state.OwesAll()) _setup.trials->DropLines();
  if (steps.output == Steps::Output::kHold) _gate.Hold();
  if (steps.output == Steps::Output::kRelease) {
    _gate.StopHolding(steps.shown);
  } else if (!_gate.IsDurable(steps.shown)) {
    _gate.SetDurable(steps.shown);
  }
  LogFailure(_log, steps.report, reason);
  if (steps.reportsRecovery) _log.AddWarning(_quotedPath.c_str(), " is saved again");
  if (steps.wakesSync && !ChangeBatch::Join(*this) && MustWakeSync()) _wakeSync.notify_one();
  if (steps.wakesSnapshot) _wakeSnapshot.notify_one();
}

void SharedUserLayer::GiveUpJournal() {
  if (_journal) _failedJournal = std::move(_journal);
  _journal.reset();
}

void SharedUserLayer::Stop() {
  {
    const osa::PlainMutexLock lock(_mutex);
    _state.OnStop();
  }
  _wakeSync.notify_all();
  _wakeSnapshot.notify_all();
}

bool SharedUserLayer::HasFailed() {
  const osa::PlainMutexLock lock(_mutex);
  return _state.HasFailed();
}

bool SharedUserLayer::NeedsLastSnapshot() {
  const osa::PlainMutexLock lock(_mutex);
  return (_journal && _journal->HasChanges()) || _state.HasFailed() || _state.GetSnapshotTime() || !_state.IsWritten();
}

std::shared_ptr<Journal> SharedUserLayer::GetJournal() {
  const osa::PlainMutexLock lock(_mutex);
  return _journal;
}

PendingGroups SharedUserLayer::TakePending() {
  const osa::PlainMutexLock lock(_mutex);
  return {_notes.GetPending().TakeChanges(), _notes.GetEpoch()};
}

// A snapshot may take the journal over, and fail to: so what must not be written now stays pending.
CloseResult SharedUserLayer::ClosePending(ChangeInParts& change, std::optional<NotedChanges::Epoch> epoch,
                                          const LayerView& layer, bool isLast, LateRecord& record) {
  const osa::PlainMutexLock lock(_mutex);
  // The next journal, or a snapshot, has all of it, maybe newer: nobody noted what became of these groups since.
  if (epoch && *epoch != _notes.GetEpoch()) return CloseResult::kDone;
  ChangedGroups& pending = _notes.GetPending();
  if (!_state.IsLateWriteDue()) {
    const ChangedGroups::Changes changes = change.TakeBack();
    if (_state.AreChangesLate()) pending.Note(changes.groups, changes.added);
    return CloseResult::kDone;
  }
  if (pending.Count() > kFewGroups && !isLast) return CloseResult::kMore;
  change.Add(pending.TakeChanges());
  while (change.MakePart(layer)) continue;
  change.SetHistory(SpellUnjournaled());
  const RecordLine line = change.Seal();
  if (!_journal) OpenJournal({});
  if (line.CountRecordBytes() <= _setup.largeChange) {
    Append(Steps::Write::kAppend, change.GetChange());
    return CloseResult::kDone;
  }
  WriteBatch();
  if (!_journal) return CloseResult::kDone;  // it failed
  _journal->BeginAppend(line);
  OnJournaled();
  record = {_journal, _state.OnLateWriteBegun()};
  if (_watch.Begin(Clock::now())) _wakeSnapshot.notify_one();
  return CloseResult::kToWrite;
}

void SharedUserLayer::OnLateWritten(const LateRecord& record) {
  const osa::PlainMutexLock lock(_mutex);
  EndDiskWork();
  record.journal->EndAppend();
  Perform(_state.OnLateWritten(record.write, record.journal->GetEnd()));
}

void SharedUserLayer::OnLateWriteFailed(const LateRecord& record, const char* reason) {
  const osa::PlainMutexLock lock(_mutex);
  EndDiskWork();
  if (record.journal) record.journal->EndAppend();
  const UserLayerState::LateWrite write = record.journal ? record.write : _state.OnLateWriteBegun();
  if (const std::optional<Steps> steps = _state.OnLateWriteFailed(write, Clock::now())) Perform(*steps, reason);
}

bool SharedUserLayer::IsLateWriteDue() {
  const osa::PlainMutexLock lock(_mutex);
  return _state.IsLateWriteDue();
}

}  // namespace tavix::daemon
