#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/SnapshotId.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/core/SettingsTextCheck.h"

namespace tavix::daemon {

// The fields of a snapshot's last line.
struct SnapshotEnd {
  uint64_t generation = 0;  // one more than that of the snapshot before; 0: none of ours

  // Where the changes go on that the snapshot does not hold, until a journal of its own stands: behind so many bytes of
  // the journal that follows that generation. 0: nowhere.
  uint64_t journalFollows = 0;
  uint64_t journalEnd = 0;

  int64_t written = 0;  // nanoseconds since the epoch, also the file's modification time
};

// The user layer as one settings text, from a first to a last line of ours: docs/persistence.md.
struct Snapshot {
  enum class State {
    kAbsent,
    kIntact,   // as it was written
    kEdited,   // changed by hand since, and readable
    kForeign,  // never ours, and readable
    kDamaged,  // torn, rotten, unreadable
  };

  State state = State::kAbsent;
  std::string problem;  // what is wrong with a damaged one
  SnapshotEnd end;
  uint32_t checksum = 0;  // as the last line says
  size_t bytes = 0;
  bool hasLongLine = false;
  bool mayHaveRestricted = false;    // groups that clients may not set; else there is none
  std::optional<uint64_t> revision;  // of its last change; empty: history was off
  std::string entries;               // of the history, which no journal may have

  SnapshotId GetId() const { return {end.generation, checksum}; }
  core::IniFile settings;
};

// Write what comes before and behind the settings. text: holds what the checksum covers, and nothing else.
void BeginSnapshot(core::StringOstream& text);
void WriteRevision(core::StringOstream& text, uint64_t revision);
SnapshotId EndSnapshot(core::StringOstream& text, const SnapshotEnd& end);

// What is not must never take the place of one that is.
bool IsWholeSnapshot(std::string_view text);

// The time now, as coarse as file systems keep it: another one would look like an edit.
int64_t GetTimeOfSnapshot();

// Never throws for what the content is like. path: what problems name.
//
// An editor changes the modification time, and leaves no control bytes; what rots does neither. That, and the two
// lines, distinguish the states.
Snapshot ReadSnapshot(const std::string& path, const FileContent& content);

// Whether a power cut, or a file system that lost what was written, may have left this: no bytes, or zeros.
bool HoldsNothing(std::string_view bytes);

// Finds out whether a regular file was never written by this daemon: it has bytes other than zero, is no settings text,
// and no line of it is our first or our last one.
//
// Threads: one at a time.
class ForeignLook {
 public:
  // path: what the reason names; outlives the object.
  explicit ForeignLook(const std::string& path) : _check(path) {}

  // Looks at the file's next lines; only its last one may lack its line feed. False: the file may be ours, no matter
  // what follows.
  bool Add(std::string_view lines);

  // Why it never was, once all was added. Empty: it may have been, or can't be read. content: what reading gave.
  std::string GetReason(const FileContent& content) const;

 private:
  core::SettingsTextCheck _check;
  bool _holdsNothing = true;
  bool _isOurs = false;
  std::string _problem;  // that the check found
};

}  // namespace tavix::daemon
