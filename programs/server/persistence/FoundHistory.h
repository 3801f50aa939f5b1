#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string_view>

#include "programs/server/persistence/HistoryEntry.h"

namespace tavix::daemon {

class JournalReader;

// What was found of the history at start beside FILE.history.
struct FoundHistory {
  std::optional<uint64_t> snapshotRevision;     // empty: the snapshot has none
  std::map<uint64_t, HistoryEntry> entries;     // of the journal's changes, also of those that the snapshot holds
  std::map<uint64_t, HistoryEntry> inSnapshot;  // of changes that no journal may have
  bool lacksEntries = false;  // records changed the user settings without one, and no revision is left out for that
  bool wasEdited = false;     // the snapshot is not what its last change left

  uint64_t journalRevision = 0;  // of the last entry
  uint64_t seenRevision = 0;     // the last of changes that are lost

  // Entries of changes that the snapshot holds were added: drops those of later ones.
  void EndEarlier();

  // Of the last change.
  uint64_t GetRevision() const { return std::max(snapshotRevision.value_or(0), journalRevision); }

  // Whether a history was kept when the files were written.
  bool IsKnown() const { return snapshotRevision || !entries.empty(); }

  // Leaves the entries out that a file has.
  template <class Has>
  void DropEntries(Has has) {
    for (auto entry = entries.begin(); entry != entries.end();)
      entry = has(entry->first) ? entries.erase(entry) : std::next(entry);
  }

  // The first that a journal or the snapshot has; 0: neither has any.
  uint64_t GetFirst() const;

  // Adds the entries that stand in the snapshot itself; and takes those that a file lacks, which ends with a revision.
  void AddSnapshot(std::string_view text);
  void UseSnapshot(uint64_t fileEnd);

  // Adds the entries of a record, of changes that the snapshot holds. Returns whether there are any.
  bool Add(const JournalReader& record);

  // Adds those of a record that is about to change these settings.
  void AddNext(const JournalReader& record, const core::IniFile& settings);

  // No revision is given again that was given to a change which is lost. bytes: of what holds such changes.
  void NoteLost(std::string_view bytes);
  void NoteLost(uint64_t revision);
};

}  // namespace tavix::daemon
