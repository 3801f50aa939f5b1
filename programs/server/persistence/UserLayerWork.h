#pragma once

#include <cstdint>
#include <memory>

#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/HistoryText.h"
#include "programs/server/persistence/Journal.h"
#include "programs/server/persistence/NotedChanges.h"
#include "programs/server/persistence/Snapshot.h"
#include "programs/server/persistence/UserLayerState.h"

// What SharedUserLayer hands to its two threads, and what they report with it.

namespace tavix::daemon {

// What the thread "JournalSync" has to do next.
enum class JournalWork { kStop, kWrite, kSync };

// What the thread "Snapshot" has to do next.
enum class SnapshotWork { kStop, kLog, kSnapshot };

// A sync of a journal.
struct SyncRound {
  std::shared_ptr<Journal> journal;
  UserLayerState::Sync sync;
  uint64_t revision = 0;  // of the last change whose entry it covers
};

// The groups that became pending since they were taken before, for a change that is made of them.
struct PendingGroups {
  ChangedGroups::Changes changes;
  NotedChanges::Epoch epoch = 0;
};

// A record of pending groups that is written without a lock.
struct LateRecord {
  std::shared_ptr<Journal> journal;  // that has a place for it; null: there is nothing to write
  UserLayerState::LateWrite write;
};

// What became of an attempt to close a change of pending groups.
enum class CloseResult {
  kMore,     // many groups are pending, whose text is to be made first
  kDone,     // it is written, or must not be now
  kToWrite,  // it is sealed, and has a place in the journal
};

// The moment whose state a snapshot holds.
struct SnapshotMoment {
  SnapshotEnd end;  // without the time
  UserLayerState::Ticket last = 0;
  uint64_t revision = 0;  // of the last change
  std::string trials;     // that are pending, as lines
  HistoryItems entries;   // of its changes that may be in no journal behind a power cut
};

}  // namespace tavix::daemon
