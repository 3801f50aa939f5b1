#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>

#include "programs/server/persistence/SnapshotId.h"

namespace tavix::daemon {

// What an event of UserLayerState asks its caller to do, all of it before the next event.
struct UserLayerSteps {
  // What becomes of the change that was made.
  enum class Write {
    kNothing,      // it is owed to a snapshot, or to the snapshot's next journal
    kAppend,       // append it to the journal
    kOpenJournal,  // open a journal that begins with it
    kLater,        // note its groups for JournalSyncer
  };

  // Whether output waits for the changes that are made from now on.
  enum class Output { kAsBefore, kHold, kRelease };

  enum class Report {
    kNothing,
    kFailure,        // the disk has failed
    kFailedRetry,    // it still fails
    kJournalGoesOn,  // a snapshot failed, and nothing is lost
  };

  Write write = Write::kNothing;
  Output output = Output::kAsBefore;
  Report report = Report::kNothing;
  bool holdsChange = false;  // output waits for this change, even where it waits for no others
  uint64_t shown = 0;        // a ticket: output does not wait any more for the changes up to this one
  bool reportsRecovery = false;
  bool wakesSync = false;
  bool wakesSnapshot = false;
  std::optional<std::time_t> unsavedSince;  // to be reported; 0: everything is on the disk
};

// What was found on the disk when the daemon started.
struct FoundUserLayer {
  SnapshotId snapshot;  // that a journal can follow; generation 0: none
  uint64_t nextGeneration = 1;
  size_t snapshotBytes = 0;
  bool mustBeWritten = false;  // what was read stands nowhere as a whole
  bool hasJournal = false;
  bool isInPlace = false;       // the journal
  uint64_t journalFollows = 0;  // its generation
};

}  // namespace tavix::daemon
