#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "programs/server/persistence/Durability.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/Snapshot.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

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
//           "JournalSync" syncs the journal, once for all who wait; "Snapshot" writes snapshots.
// Locks:    its own mutex, inside "SettingsMutex"; held while the journal is appended to, never during a sync.
// Errors:   none leave it but std::bad_alloc. What goes wrong is logged with its file and reason, changes are served
//           from memory, nothing is kept back for the disk, and a snapshot is tried after 1 s, later up to 60 s, until
//           the disk has it.
class UserSettingsPersister {
 public:
  // Calls back with the user layer while nobody can change it.
  using LayerReader = std::function<void(const std::function<void(const core::IniFile&)>&)>;

  // What became of a sync or a snapshot; bytes: the snapshot's, else 0.
  using SaveObserver = std::function<void(bool succeeded, size_t bytes)>;

  // files: outlive the object. path: the snapshot's; links are not followed. observer: called from any thread.
  UserSettingsPersister(FileSystem& files, const std::string& path, Durability durability, SaveObserver observer);

  // Nothing is saved any more.
  ~UserSettingsPersister();

  UserSettingsPersister(const UserSettingsPersister&) = delete;
  UserSettingsPersister& operator=(const UserSettingsPersister&) = delete;

  // What was found is moved out, but for the journal; call it once, first.
  FoundUserSettings Load();

  // Begins to write; readLayer: is called until Finish.
  void Start(LayerReader readLayer);

  // userSettings: the layer after a change of these groups. Returns before anything is durable; see the gate.
  void Save(const core::IniFile& userSettings, const std::set<std::string>& changedGroups);

  // Ends the threads and leaves one snapshot that holds everything. False when there are changes that are not on the
  // disk.
  bool Finish();

  // Ends the threads; nothing is saved any more. A second call does nothing.
  void Stop();

  DurabilityGate& GetGate() { return _gate; }

 private:
  using Clock = std::chrono::steady_clock;

  // A thread that runs one of the loops.
  class Worker : private osa::Runnable {
   public:
    Worker(const char* name, std::function<void()> loop);
    ~Worker() override;

   private:
    void Run() override { _loop(); }

    const std::function<void()> _loop;
    osa::Thread _thread;
  };

  void SyncLoop();
  bool AwaitSync(std::unique_lock<std::mutex>& lock);
  void SyncJournal(std::unique_lock<std::mutex>& lock);
  void SnapshotLoop();
  bool WriteSnapshot();
  void TakeOver(uint64_t generation, size_t bytes, DurabilityGate::Ticket ticket);
  void Append(const Change& change);
  void OpenJournal(const std::vector<Change>& changes);
  void SayWhereChangesGoOn(SnapshotEnd& end) const;
  void LetGoUnlessAlways();
  void AskForSnapshot();
  void Fail(const std::string& reason);
  void FailSnapshot(const std::string& reason);
  void TryLater();

  FileSystem& _filesystem;
  const std::string _path;
  const Durability _durability;
  const SaveObserver _observer;
  DurabilityGate _gate;
  UserSettingsFiles _files;
  LayerReader _readLayer;

  std::mutex _mutex;  // guards what follows
  std::condition_variable _wakeSync;
  std::condition_variable _wakeSnapshot;
  bool _stop = false;
  uint64_t _generation = 0;  // of the snapshot; 0: changes can't be appended to a journal yet
  uint64_t _nextGeneration = 1;
  size_t _snapshotBytes = 0;
  std::shared_ptr<Journal> _journal;   // null: none since the snapshot
  DurabilityGate::Ticket _last = 0;    // the last change
  DurabilityGate::Ticket _synced = 0;  // the last that is durable
  Clock::time_point _firstUnsynced{};  // when the oldest change that is not was made
  bool _failed = false;                // the disk lacks changes that were served
  bool _snapshotIsAsked = false;
  Clock::time_point _nextTry{};    // no snapshot before
  std::chrono::seconds _delay{0};  // until the next try, after a failure
  bool _keepsChanges = false;      // a snapshot is being written ...
  std::vector<Change> _changes;    // ... that lacks these

  std::unique_ptr<Worker> _sync;
  std::unique_ptr<Worker> _snapshot;
};

}  // namespace tavix::daemon
