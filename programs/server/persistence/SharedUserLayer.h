#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/server/persistence/ChangeBatch.h"
#include "programs/server/persistence/ChangeInParts.h"
#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/DeferredLog.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/HistoryQueue.h"
#include "programs/server/persistence/HistoryText.h"
#include "programs/server/persistence/NotedChanges.h"
#include "programs/server/persistence/SyncGather.h"
#include "programs/server/persistence/SyncWatch.h"
#include "programs/server/persistence/UserLayerSetup.h"
#include "programs/server/persistence/UserLayerState.h"
#include "programs/server/persistence/UserLayerWork.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ClientIdentity.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

// What a store's saves, JournalSyncer and SnapshotWriter share: the state of the user layer on the disk, the journal,
// and the changes that the next snapshot lacks. An operation reports one event to UserLayerState and does what that
// asks for, as one step under one lock; so the class has an operation for each event, and all that one lock guards.
//
// In order: saves come under the store's lock, one at a time, and append to the journal; those of a ChangeBatch are
// written at its end, or by a sync that begins before. Of a large change, and of those behind it until it is
// written, they note the groups only: the groups are pending. Beside them JournalSyncer writes pending groups
// (TakePending, ClosePending and, when they are many, OnLateWritten), and syncs what was appended, without a lock. In
// its place a thread may sync its batch at the end, where only records are to be synced and the last sync was short.
// Beside both SnapshotWriter makes a snapshot: BeginToNote starts to note changed groups, BeginSnapshot is the
// snapshot's moment, TakeOver lets all further changes be pending, and Follow, FailToFollow or FailSnapshot is its
// end. Then pending is what the next journal does not have.
//
// Threads: any.
// Locks:   the mutex for names, outermost: held by an object for as long as a journal is made or takes its place. The
//          own mutex, inside "SettingsMutex": held by each operation, also while the journal is appended to, never
//          during a sync or while something is logged.
// Errors:  none leave Save; the others say what they throw.
class SharedUserLayer : private ChangeBatch::IMember {
 public:
  using Ticket = DurabilityGate::Ticket;
  using Clock = UserLayerState::Clock;
  using LayerView = settings::server::LayerView;

  explicit SharedUserLayer(UserLayerSetup setup);

  SharedUserLayer(const SharedUserLayer&) = delete;
  SharedUserLayer& operator=(const SharedUserLayer&) = delete;

  const UserLayerSetup& GetSetup() const { return _setup; }
  DurabilityGate& GetGate() { return _gate; }
  DeferredLog& GetLog() { return _log; }

  // The mutex for names. A thread that makes a journal, or gives one its place, holds it.
  osa::PlainMutex& GetNameMutex() TAVIX_RETURN_CAPABILITY(_nameMutex) { return _nameMutex; }

  // Takes the journal over, and knows from now on what the disk has. Before all other operations. historyEnd: the last
  // revision that FILE.history has.
  void Load(FoundUserSettings& found, uint64_t historyEnd = 0);

  // As UserSettingsPersister. Under the store's write lock. Returns the change's ticket.
  using SavedChange = settings::server::ISettingsPersister::SavedChange;
  Ticket Save(const SavedChange& change);

  // As UserSettingsPersister. end: called under the mutex.
  Ticket SaveTrial(const std::function<void()>& end);
  Ticket ConfirmTrial(const std::string& name, const settings::server::ClientIdentity& client);

  // Ends the waits of both threads.
  void Stop();

  // Whether the disk has all that it must have when the daemon ends now. Takes no lock: the mutex may be held by a
  // thread that hangs in a call on the disk.
  bool IsSaved() const { return _isSaved; }
  bool HasFailed();

  // Whether a snapshot has to be made for the daemon to leave one file.
  bool NeedsLastSnapshot();

  // The current journal; null: there is none.
  std::shared_ptr<Journal> GetJournal();

  // Waits until there is something to do for the thread "JournalSync". A sync comes before a write.
  JournalWork AwaitJournalWork();

  // The groups that became pending since the last call.
  PendingGroups TakePending();

  // Completes the change by the few groups that are pending besides, so that it leads to the layer as it is now. A
  // change of little text is written at once. epoch: of all that was taken for the change; when it is over, the change
  // is dropped. Empty: nothing was taken. isLast: however many groups are pending. Under the store's read lock.
  CloseResult ClosePending(ChangeInParts& change, std::optional<NotedChanges::Epoch> epoch, const LayerView& layer,
                           bool isLast, LateRecord& record);
  void OnLateWritten(const LateRecord& record);

  // Groups could not be made a change of, or the record could not be written; then it has a journal.
  void OnLateWriteFailed(const LateRecord& record, const char* reason);
  bool IsLateWriteDue();

  // Empty when there is nothing to sync any more.
  std::optional<SyncRound> BeginSync();

  // Makes the round's journal the one that is found. False when it was given up, and another may have its name by now.
  bool TakePlace(const SyncRound& round);
  void OnSynced(const SyncRound& round);
  void OnSyncFailed(const SyncRound& round, const char* reason);
  void OnSyncUseless();  // the journal was given up

  // Waits until there is something to do for the thread "Snapshot".
  SnapshotWork AwaitSnapshotWork();

  // Removes a journal that was given up and still has the name of a new one, for a snapshot that needs its room. It is
  // what a daemon that crashes before that snapshot stands would find: else Follow removes it, or the next journal gets
  // its name. False when there is none.
  bool RemoveUselessJournal(UserSettingsFiles& files);

  // Notes the groups that change from now on, and returns those noted since the last call. The second throws
  // std::bad_alloc when some could not be noted.
  void BeginToNote();
  ChangedGroups::Changes TakeChanges();

  // The snapshot's text is whole. Under the store's read lock.
  SnapshotMoment BeginSnapshot();

  // The entries up to that revision, which FILE.history is to get; and that it has them, or that they are lost.
  HistoryItems GetHistoryUpTo(uint64_t revision);
  void DropHistoryUpTo(uint64_t revision);

  // As HistoryQueue::FindBelow. What is not there any more, the file has.
  HistoryItems FindHistoryBelow(uint64_t revision, size_t maxBytes);

  HistoryState GetHistoryState();

  // Cuts zeros behind the last record off the journals, for a snapshot of so many bytes.
  void GiveRoomBack(size_t snapshotBytes);

  void FailSnapshot(const char* reason);

  // Whether changes behind the snapshot need a journal before the next change does.
  bool NeedsNextJournal();
  std::shared_ptr<Journal> CreateNextJournal(const SnapshotId& snapshot) TAVIX_REQUIRES(_nameMutex);

  // Whether the journal before has to stay until the next one is synced, as a confirmation behind the snapshot must not
  // be lost, whatever the durability is.
  bool MustBeSyncedBehind(const UserLayerState::Snapshot& snapshot) TAVIX_EXCLUDES(_mutex);

  // Gives the current journal its place.
  void TakePlaceNamed(Journal& journal) TAVIX_REQUIRES(_nameMutex);

  // The next journal is about to get what it has to hold at last: all further changes are pending.
  void TakeOver();

  // Completes a change of the next journal by the few groups that it lacks besides. Returns the last change that it
  // leads to; empty: it lacks many. isLast: however many they are. Under the store's read lock.
  std::optional<Ticket> CloseChanges(ChangeInParts& change, const LayerView& layer, bool isLast);

  // The next journal, which holds all changes up to "last", begins and is the current one from now on; all others are
  // pending. next: null when none is needed.
  void Follow(const UserLayerState::Snapshot& snapshot, std::shared_ptr<Journal> next, Ticket last);

  // The snapshot stands, and can't have a journal.
  void FailToFollow(const UserLayerState::Snapshot& snapshot, const char* reason, UserSettingsFiles& files);

  // The file FILE.journal, when no journal is the current one.
  void RemoveOldJournal();

 private:
  using Steps = UserLayerState::Steps;

  void OnBatchEnd(const ChangeBatch::MayWait& mayWait) noexcept override TAVIX_EXCLUDES(_mutex);
  void WriteBatch() TAVIX_REQUIRES(_mutex);
  bool MaySyncInBatch(Clock::time_point now) const TAVIX_REQUIRES(_mutex);
  void SyncInBatch(const SyncRound& round) noexcept TAVIX_EXCLUDES(_mutex);
  void EndSyncInBatch() TAVIX_EXCLUDES(_mutex);
  std::optional<SyncRound> TryToBeginSync(Clock::time_point now) TAVIX_REQUIRES(_mutex);
  bool MustWakeSync() const TAVIX_REQUIRES(_mutex);
  std::optional<Clock::time_point> FindSyncTime() const TAVIX_REQUIRES(_mutex);
  Ticket Write(const SavedChange& saved, std::optional<Change> change, bool isLarge, bool mustBeSynced = false)
      TAVIX_REQUIRES(_mutex);
  bool TryToAddTrials(Change& change) TAVIX_REQUIRES(_mutex);
  std::string SpellUnjournaled() TAVIX_REQUIRES(_mutex);
  void OnJournaled() TAVIX_REQUIRES(_mutex);
  void Append(Steps::Write write, const Change& change) TAVIX_REQUIRES(_mutex);
  bool IsLarge(const SavedChange& change, const std::optional<HistoryLines>& history) const;
  void OpenJournal(const std::vector<Change>& changes) TAVIX_REQUIRES(_mutex);
  void Perform(const Steps& steps, const char* reason = "") TAVIX_REQUIRES(_mutex);
  void GiveUpJournal() TAVIX_REQUIRES(_mutex);
  void EndDiskWork() TAVIX_REQUIRES(_mutex);

  const UserLayerSetup _setup;
  const std::string _quotedPath;  // for messages
  DurabilityGate _gate;
  DeferredLog _log;

  osa::PlainMutex _nameMutex;
  osa::PlainMutex _mutex;
  UserLayerState _state TAVIX_GUARDED_BY(_mutex);
  SyncWatch _watch TAVIX_GUARDED_BY(_mutex);
  SyncGather _gather TAVIX_GUARDED_BY(_mutex);
  NotedChanges _notes TAVIX_GUARDED_BY(_mutex);
  HistoryQueue _history TAVIX_GUARDED_BY(_mutex);
  std::condition_variable _wakeSync;

  // Whether a thread syncs the changes of its batch. "JournalSync" waits meanwhile.
  bool _syncsInBatch TAVIX_GUARDED_BY(_mutex) = false;

  // The journal that was synced last, name included; 0: none was.
  UserLayerState::JournalNumber _syncedJournal TAVIX_GUARDED_BY(_mutex) = 0;

  // Until when "JournalSync" waits if nobody wakes it; in the past while it does not wait.
  Clock::time_point _syncSleepsUntil TAVIX_GUARDED_BY(_mutex){};
  std::condition_variable _wakeSnapshot;
  std::atomic<bool> _isSaved{false};                           // as the state says
  std::shared_ptr<Journal> _journal TAVIX_GUARDED_BY(_mutex);  // the current one; null: there is none

  // The last that was given up; its file may take room. Never synced.
  std::shared_ptr<Journal> _failedJournal TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
