#pragma once

#include <condition_variable>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/DeferredLog.h"
#include "programs/server/persistence/Durability.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/Snapshot.h"
#include "programs/server/persistence/SyncWatch.h"
#include "programs/server/persistence/UserLayerState.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Where the user layer is kept, and who hears of it. The observers are called from any thread, which may hold the
// store's lock.
struct UserLayerSetup {
  FileSystem& files;  // outlive the persister
  std::string path;   // of the snapshot; links are not followed
  Durability durability;

  // What became of a sync or a snapshot; bytes: the snapshot's, else 0.
  std::function<void(bool succeeded, size_t bytes)> onSave;

  // Since when there are changes that the disk lacks, in seconds since the epoch; 0: there are none. May be empty.
  // Never called with Durability::kNone.
  std::function<void(std::time_t since)> onUnsaved = {};
};

// What a store's saves, JournalSyncer and SnapshotWriter share: the state of the user layer on the disk, the journal,
// and the changes that the next snapshot lacks. An operation reports one event to UserLayerState and does what that
// asks for, as one step under one lock; so the class has an operation for each event.
//
// In order: saves come under the store's lock, one at a time, and append to the journal. Beside them JournalSyncer
// syncs what was appended, without a lock, and reports the end. Beside both SnapshotWriter makes a snapshot:
// BeginToNote starts to note changed groups, BeginSnapshot is the snapshot's moment, and Follow, FailToFollow or
// FailSnapshot its end.
//
// Threads: any.
// Locks:   the mutex for names, outermost: held by an object for as long as a journal is made or takes its place. The
//          own mutex, inside "SettingsMutex": held by each operation, also while the journal is appended to, never
//          during a sync or while something is logged.
// Errors:  none leave Save; the others say what they throw.
class SharedUserLayer {
 public:
  using Ticket = DurabilityGate::Ticket;
  using Clock = UserLayerState::Clock;

  // A sync of a journal.
  struct SyncRound {
    std::shared_ptr<Journal> journal;
    UserLayerState::Sync sync;
  };

  // The moment whose state a snapshot holds.
  struct SnapshotMoment {
    SnapshotEnd end;  // without the time
    Ticket last = 0;
  };

  // What the thread "Snapshot" has to do next.
  enum class SnapshotWork { kStop, kLog, kSnapshot };

  explicit SharedUserLayer(UserLayerSetup setup);

  SharedUserLayer(const SharedUserLayer&) = delete;
  SharedUserLayer& operator=(const SharedUserLayer&) = delete;

  const UserLayerSetup& GetSetup() const { return _setup; }
  DurabilityGate& GetGate() { return _gate; }
  DeferredLog& GetLog() { return _log; }

  // The mutex for names. Whoever makes a journal, or gives one its place, holds it.
  std::mutex& GetNameMutex() { return _nameMutex; }

  // Takes the journal over, and knows from now on what the disk has. Before all other operations.
  void Load(FoundUserSettings& found);

  // As UserSettingsPersister. Under the store's write lock.
  void Save(const core::IniFile& userSettings, const std::set<std::string>& changedGroups, const core::IniFile& added);

  // Ends the waits of both threads.
  void Stop();

  // Whether the disk has all that it must have when the daemon ends now.
  bool IsSaved();
  bool HasFailed();

  // Whether a snapshot has to be made for the daemon to leave one file.
  bool NeedsLastSnapshot();

  // The current journal; null: there is none.
  std::shared_ptr<Journal> GetJournal();

  // Waits until a sync has to begin; empty: it is time to stop.
  std::optional<SyncRound> AwaitSync();

  // Makes the round's journal the one that is found. False when it was given up, and another may have its name by now.
  bool TakePlace(const SyncRound& round);
  void OnSynced(const SyncRound& round);
  void OnSyncFailed(const SyncRound& round, const char* reason);
  void OnSyncUseless();  // the journal was given up

  // Waits until there is something to do for the thread "Snapshot".
  SnapshotWork AwaitSnapshotWork();

  // Removes a journal that was given up and that nobody needs: a snapshot may need its room.
  void RemoveUselessJournal(UserSettingsFiles& files);

  // Notes the groups that change from now on, and returns those noted since the last call. The second throws
  // std::bad_alloc when some could not be noted.
  void BeginToNote();
  std::set<std::string> TakeChangedGroups();

  // The snapshot's text is whole. Under the store's read lock.
  SnapshotMoment BeginSnapshot();

  // Cuts the zeros behind the last record off the journals.
  void GiveRoomBack();

  void FailSnapshot(const char* reason);

  // Whether changes behind the snapshot need a journal before the next change does.
  bool NeedsNextJournal();
  std::shared_ptr<Journal> CreateNextJournal(const SnapshotId& snapshot);

  // Gives the current journal its place. The caller holds the mutex for names.
  void TakePlaceNamed(Journal& journal);

  // What the next journal lacks, when that is more than a few groups. Under the store's read lock.
  std::optional<Change> TakeManyChanges(const core::IniFile& layer);

  // The next journal gets the rest of the changes, and is the current one from now on. next: null when none was needed
  // before; then one is made if it is now. Returns the current journal. Under the store's read lock.
  std::shared_ptr<Journal> Follow(const UserLayerState::Snapshot& snapshot, std::shared_ptr<Journal> next,
                                  const core::IniFile& layer);

  // The snapshot stands, and can't have a journal.
  void FailToFollow(const UserLayerState::Snapshot& snapshot, const char* reason, UserSettingsFiles& files);

  // The file FILE.journal, when no journal is the current one.
  void RemoveOldJournal();

 private:
  using Steps = UserLayerState::Steps;

  void AddTicket(const std::set<std::string>& changedGroups, const core::IniFile& added);
  void Append(Steps::Write write, const Change& change);
  void OpenJournal(const Change& change);
  void Perform(const Steps& steps, const char* reason = "");
  void Report(Steps::Report report, const char* reason);
  void GiveUpJournal();

  const UserLayerSetup _setup;
  const std::string _quotedPath;  // for messages
  DurabilityGate _gate;
  DeferredLog _log;

  std::mutex _nameMutex;
  std::mutex _mutex;  // guards what follows
  UserLayerState _state;
  SyncWatch _watch;
  std::condition_variable _wakeSync;
  std::condition_variable _wakeSnapshot;
  std::shared_ptr<Journal> _journal;        // the current one; null: there is none
  std::shared_ptr<Journal> _failedJournal;  // the last that was given up; its file may take room. Never synced
  ChangedGroups _changed;                   // what the snapshot that is made, and then the next journal, lacks so far
};

}  // namespace tavix::daemon
