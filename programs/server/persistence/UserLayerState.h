#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>

#include "programs/server/persistence/Durability.h"
#include "programs/server/persistence/JournalNames.h"
#include "programs/server/persistence/RetryBackoff.h"
#include "programs/server/persistence/SnapshotId.h"
#include "programs/server/persistence/UserLayerSteps.h"

namespace tavix::daemon {

// What is known of the user layer on the disk: which changes the snapshot and its journal hold, and which are synced.
// Each event is a method, which returns what its caller has to do; that makes more than twenty.
//
// In order: Load comes first. A change is appended to the current journal, which the first change after a snapshot
// opens, and a sync that began later covers it. A large change is not written by its writer: it and all that come
// behind it are written later, as one record, by JournalSyncer; once nothing is left to write, changes are appended
// again. A journal that has grown long asks for a snapshot. OnSnapshotBegun is the moment whose state the snapshot
// holds; changes go on into the journal before it until OnTakeOver, from then on they are written later, and after
// OnFollowed the next journal is the current one. A change that can't be appended, a sync that fails and a first
// snapshot that fails lead to kFailed: there is no journal then, changes are in memory only, and a snapshot of
// everything is due, first after 1 s. Only a snapshot leads out of kNoSnapshot and kFailed; recovery is reported once
// the disk has all changes that were made until then. A snapshot that fails changes nothing else.
//
//     kNoSnapshot ---begun---> kSnapshotting ---followed---> kJournalling
//     kJournalling --begun---> kSnapshotting ---failed-----> kJournalling
//     kFailed -------begun---> kSnapshotting ---failed-----> kFailed, also from kNoSnapshot
//     kJournalling --append or sync failed---> kFailed
//     kSnapshotting -append or sync failed---> kSnapshotting; a snapshot that fails as well then leads to kFailed
//
// Without files, threads, clocks and locks: the caller knows what time it is.
//
// Threads: one at a time.
class UserLayerState {
 public:
  using Clock = std::chrono::steady_clock;
  using Ticket = uint64_t;  // of a change: 1 for the first one, then one more for each; 0: none
  using JournalNumber = JournalNames::Number;

  enum class Phase {
    kNoSnapshot,    // no snapshot that a journal could follow: changes are owed to the first one
    kJournalling,   // changes are appended to a journal that follows the snapshot
    kSnapshotting,  // a snapshot is written; changes are noted for the next journal, and appended if there is a journal
    kFailed,        // the disk lacks changes that were shown; everything is owed to a snapshot
  };

  // A change as the caller found it.
  enum class Size {
    kUnknown,  // there was no memory to describe it
    kSmall,
    kLarge,  // to write it would take long
  };

  using Steps = UserLayerSteps;
  using Found = FoundUserLayer;

  // A record of changes that are written later, under way.
  struct LateWrite {
    JournalNumber journal = 0;
    Ticket last = 0;  // the change up to which the record holds all
  };

  // A sync under way.
  struct Sync {
    JournalNumber journal = 0;
    Ticket last = 0;  // the change up to which it covers all
    std::time_t begun = 0;
  };

  // A snapshot whose text is whole.
  struct SnapshotBegin {
    uint64_t generation = 0;
    uint64_t journalFollows = 0;  // the generation whose journal the changes go on in; 0: they go on in none
    Ticket last = 0;              // that the text holds
  };

  // A snapshot that stands at FILE.
  struct Snapshot {
    SnapshotId id;
    size_t bytes = 0;
    Ticket last = 0;
  };

  // minJournal: in bytes; no snapshot is worth its cost for a shorter journal.
  explicit UserLayerState(Durability durability, uint64_t minJournal = 256 * 1024)
      : _durability(durability), _minJournal(minJournal) {}

  Steps Load(const Found& found);

  // A change was made in memory; it has the ticket GetLast() from now on. mustBeSynced: output that shows it, or a
  // later change, waits for a sync, whatever the durability is, unless the disk has failed.
  Steps OnChange(Size size, Clock::time_point now, std::time_t time, bool mustBeSynced = false);

  // A journal was opened at FILE.journal.new, for a change, or for those that are written later.
  void OnOpened();

  // All changes are written. journalEnd: behind the last one, in bytes.
  Steps OnAppended(uint64_t journalEnd);
  Steps OnAppendFailed(Clock::time_point now) { return Fail(now); }

  // A record is about to be written that holds all changes which are not; there is a journal for it. Then it is
  // written, or could not be: nothing, when the journal was replaced or given up meanwhile.
  LateWrite OnLateWriteBegun() const { return {_names.GetCurrent(), _changes.last}; }
  Steps OnLateWritten(const LateWrite& write, uint64_t journalEnd);
  std::optional<Steps> OnLateWriteFailed(const LateWrite& write, Clock::time_point now);

  // A sync begins, and has ended. The second: nothing, when the journal was replaced or given up meanwhile.
  Sync OnSyncBegun(Clock::time_point now, std::time_t time);
  Steps OnSynced(const Sync& sync);
  std::optional<Steps> OnSyncFailed(const Sync& sync, Clock::time_point now);

  // A snapshot's text is whole.
  SnapshotBegin OnSnapshotBegun();

  // It could not be made or saved, begun or not.
  Steps OnSnapshotFailed(Clock::time_point now);

  // The next journal is about to get the last changes that it has to hold: from now on the current one gets none.
  void OnTakeOver();

  // The snapshot stands. The next journal, if there is one, holds the changes behind it up to "last", and is the
  // current one from now on; journalEnd: its length. Changes behind "last" are written later.
  Steps OnFollowed(const Snapshot& snapshot, JournalNumber next, Ticket last, uint64_t journalEnd);

  // The snapshot stands, but no journal could be made for the changes behind it. The one before goes on, if there is
  // one: the snapshot says from where.
  Steps OnFollowFailed(const Snapshot& snapshot, Clock::time_point now);

  void OnStop() { _isStopping = true; }

  // Who has the name FILE.journal.new. The next journal is created through this, and so is the end of a rename noted.
  JournalNames& GetNames() { return _names; }
  const JournalNames& GetNames() const { return _names; }

  Phase GetPhase() const { return _phase; }
  bool IsStopping() const { return _isStopping; }
  bool HasFailed() const { return (IsSnapshotting() ? _phaseOnFailure : _phase) == Phase::kFailed; }
  bool IsSnapshotting() const { return _phase == Phase::kSnapshotting; }
  bool OwesAll() const { return _phase == Phase::kNoSnapshot || _phase == Phase::kFailed; }  // to a snapshot to come
  bool AreChangesLate() const { return _changes.areLate; }

  // Whether a change behind this one is not to be shown before it is synced, or was not, whatever the durability is.
  bool MustBeSyncedBehind(Ticket ticket) const { return _changes.toBeSynced > ticket; }
  bool IsWritten() const { return _changes.written == _changes.last; }
  Ticket GetLast() const { return _changes.last; }
  Ticket GetWritten() const { return _changes.written; }
  Ticket GetSynced() const { return _changes.synced; }
  SnapshotId GetSnapshotId() const { return _snapshot.id; }

  // Whether there are changes that have to be written later, and can be.
  bool IsLateWriteDue() const;

  // When a sync should begin; empty: there is nothing to sync.
  std::optional<Clock::time_point> GetSyncTime() const;

  // When a snapshot should be tried, in the past for at once; empty: none is due.
  std::optional<Clock::time_point> GetSnapshotTime() const;

  // Whether the disk has all that it must have when the daemon ends now.
  bool IsSaved() const;

 private:
  struct Changes {
    Ticket last = 0;
    Ticket written = 0;
    Ticket synced = 0;
    Ticket toBeSynced = 0;              // the last that must be synced before it is shown
    Ticket firstToBeSynced = 0;         // the first since none was awaited
    bool areLate = false;               // they are written later
    bool arePaused = false;             // and not before the snapshot is followed
    Clock::time_point firstUnsynced{};  // when the oldest change that is not synced was made
  };

  bool HasSnapshot() const { return _snapshot.id.generation != 0; }
  bool HasJournal() const { return _names.GetCurrent() != 0; }
  bool CanAppend() const { return _phase == Phase::kJournalling || (IsSnapshotting() && HasJournal()); }
  Ticket GetSaved() const;  // as the durability asks for
  bool AwaitsSync() const { return _changes.synced < _changes.toBeSynced; }
  Ticket FindShownUnlessAlways() const;
  Steps FindWrite(Size size);
  Steps Fail(Clock::time_point now);
  void Resume(Steps& steps);
  void Follow(const Snapshot& snapshot, Steps& steps);
  void RetryLater(Clock::time_point now, Steps& steps);
  void RequestSnapshot(Steps& steps);
  void RequestSnapshotIfLong(uint64_t journalEnd, Steps& steps);
  void ReleaseUnlessAlways(Steps& steps) const;
  void ShowWrittenUnlessAlways(Steps& steps) const;
  void ReportRecovery(Steps& steps);

  const Durability _durability;
  const uint64_t _minJournal;
  Phase _phase = Phase::kNoSnapshot;
  Phase _phaseOnFailure = Phase::kNoSnapshot;  // to which a failure of the snapshot that is written leads
  bool _isStopping = false;
  Snapshot _snapshot;  // the last one that stands
  uint64_t _nextGeneration = 1;
  bool _isSnapshotDue = false;
  RetryBackoff _retry;  // no snapshot before its time
  JournalNames _names;
  uint64_t _journalFollows = 0;  // the generation of the snapshot that the current journal follows
  Changes _changes;
  std::optional<Ticket> _recoveryTicket;  // recovery is reported once the changes up to it are saved
};

}  // namespace tavix::daemon
