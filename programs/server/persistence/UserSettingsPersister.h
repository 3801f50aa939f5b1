#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/DeferredLog.h"
#include "programs/server/persistence/Durability.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/LoopThread.h"
#include "programs/server/persistence/RetryBackoff.h"
#include "programs/server/persistence/Snapshot.h"
#include "programs/server/persistence/SyncWatch.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/TextInParts.h"

namespace tavix::daemon {

// Keeps the user layer on the disk, as a snapshot and a journal of the changes since: docs/persistence.md. A change
// costs what it is long, however large the layer is; when the journal outgrows the snapshot, a new snapshot is made
// beside the service.
//
// Survives: a crash of the daemon loses nothing. After a power cut the layer is as it was after some change, whole, and
//           with Durability::kAlways that is the last one that anybody was shown, or a later one. Not promised: with
//           kInterval the changes of that interval, with kNone those that the system had not written; and after the
//           disk has failed, until the log says that it is well again, those since.
// Threads:  Save and the reader that is passed to Start run under the store's lock; the rest is called by one thread.
//           "JournalSync" syncs the journal, once for all who wait; "Snapshot" writes snapshots, and what is logged.
// Locks:    its own mutex, inside "SettingsMutex"; held while the journal is appended to, never during a sync, while a
//           long journal is written, or while something is logged. Before both, the one for the names of journals.
// Errors:   none leave it. What goes wrong, refused memory included, is logged with its file and reason, changes are
//           served from memory, nothing is kept back for the disk, and a snapshot is tried after 1 s, later up to 60 s,
//           until the disk has it.
class UserSettingsPersister {
 public:
  // Calls back with the user layer while nobody can change it.
  using LayerReader = settings::server::TextInParts::Reader;

  // What became of a sync or a snapshot; bytes: the snapshot's, else 0.
  using SaveObserver = std::function<void(bool succeeded, size_t bytes)>;

  // Since when there are changes that the disk lacks, in seconds since the epoch; 0: there are none. Never called with
  // kNone.
  using UnsavedObserver = std::function<void(std::time_t since)>;

  // The disk does not let Finish end. isSaved: whether it has everything all the same.
  using LateEnd = std::function<void(bool isSaved)>;

  // files: outlive the object. path: the snapshot's; links are not followed. The observers are called from any thread,
  // which may hold the store's lock; the second may be empty.
  UserSettingsPersister(FileSystem& files, const std::string& path, Durability durability, SaveObserver observer,
                        UnsavedObserver unsavedObserver = {});

  // Nothing is saved any more.
  ~UserSettingsPersister();

  UserSettingsPersister(const UserSettingsPersister&) = delete;
  UserSettingsPersister& operator=(const UserSettingsPersister&) = delete;

  // What was found is moved out, but for the journal; call it once, first.
  FoundUserSettings Load();

  // Begins to write; readLayer: is called until Finish.
  void Start(LayerReader readLayer);

  // userSettings: the layer after a change of these groups; added: what further groups got. Returns before anything is
  // durable; see the gate.
  void Save(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
            const core::IniFile& added = {});

  // Ends the threads and leaves one snapshot that holds everything. False when there are changes that are not on the
  // disk. onLate: is called on another thread when that takes longer than the limit; it may end the process.
  bool Finish(std::chrono::milliseconds limit, const LateEnd& onLate);

  // Ends the threads; nothing is saved any more. A second call does nothing.
  void Stop();

  DurabilityGate& GetGate() { return _gate; }

 private:
  using Clock = std::chrono::steady_clock;

  void SyncLoop();
  bool AwaitSync(std::unique_lock<std::mutex>& lock);
  void SyncJournal(std::unique_lock<std::mutex>& lock);
  void SnapshotLoop();
  void AwaitWork(std::unique_lock<std::mutex>& lock);
  bool TakePlace(Journal& journal);
  bool WriteSnapshot();
  void ReplaceSnapshot(const std::string& text, int64_t written);
  void GiveRoomBack();
  bool RemoveBackup();
  void RemoveOldJournal();
  void RemoveGivenUpJournal();
  void BeginToNoteChanges();
  std::set<std::string> TakeChanged();
  SnapshotEnd BeginToKeepChanges();
  void TakeOver(const SnapshotId& snapshot, size_t bytes, DurabilityGate::Ticket ticket);
  std::shared_ptr<Journal> MakeNextJournal(const SnapshotId& snapshot);
  void Follow(const SnapshotId& snapshot, size_t bytes, DurabilityGate::Ticket ticket);
  void FailToFollow(const char* reason);
  void EndSnapshotting();
  void AddTicket(const std::set<std::string>& changedGroups, const core::IniFile& added);
  void Append(const Change& change);
  void OpenJournal(const Change& change);
  void TellSinceWhenUnsaved(std::time_t since);
  void LetGoUnlessAlways();
  void AskForSnapshot();
  void AskForSnapshotIfLong();
  void SayThatAllIsWell();
  void Fail(const char* reason);
  void FailSnapshot(const char* reason);
  void TryLater();
  bool WriteTheLast();
  bool IsSaved();

  FileSystem& _filesystem;
  const std::string _path;
  const std::string _quotedPath;  // for messages
  const Durability _durability;
  const SaveObserver _observer;
  const UnsavedObserver _unsavedObserver;
  DurabilityGate _gate;
  UserSettingsFiles _files;
  LayerReader _readLayer;
  DeferredLog _log;

  std::mutex _names;  // held by whoever makes a journal, or gives one its place
  std::mutex _mutex;  // guards what follows
  SyncWatch _watch;
  std::condition_variable _wakeSync;
  std::condition_variable _wakeSnapshot;
  bool _stop = false;
  SnapshotId _snapshotId;  // generation 0: changes can't be appended to a journal yet
  uint64_t _nextGeneration = 1;
  size_t _snapshotBytes = 0;
  std::shared_ptr<Journal> _journal;        // null: none since the snapshot
  std::shared_ptr<Journal> _failedJournal;  // was given up since; its file may take room. Never synced
  DurabilityGate::Ticket _last = 0;         // the last change
  DurabilityGate::Ticket _synced = 0;       // the last that is durable
  Clock::time_point _firstUnsynced{};       // when the oldest change that is not was made
  bool _failed = false;                     // the disk lacks changes that were served
  bool _saysWhenWell = false;               // nobody was told yet that it has them again
  bool _leftNewJournal = false;             // one was given up on its way, and nobody needs it
  bool _snapshotIsAsked = false;
  RetryBackoff _retry;         // no snapshot before its time
  ChangedGroups _changed;      // what the snapshot that is being made lacks so far
  bool _keepsChanges = false;  // its text is whole; what changes now is for the next journal

  std::unique_ptr<LoopThread> _sync;
  std::unique_ptr<LoopThread> _snapshot;
};

}  // namespace tavix::daemon
