#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>

#include "programs/server/persistence/HistoryEntry.h"

namespace tavix::daemon {

// What was found of the history at start beside FILE.history.
struct FoundHistory {
  std::optional<uint64_t> snapshotRevision;  // empty: the snapshot has none
  std::deque<HistoryEntry> entries;          // of the journal's changes, those that the snapshot holds first
  bool lacksEntries = false;  // the user settings were changed without one, and no revision is left out for that

  uint64_t journalRevision = 0;  // of the last entry

  // Entries of changes that the snapshot holds were added: puts them in order, each once, none that is later.
  void EndEarlier();

  // Of the last change.
  uint64_t GetRevision() const { return std::max(snapshotRevision.value_or(0), journalRevision); }

  // Leaves the entries out that a file has.
  template <class Has>
  void DropEntries(Has has) {
    entries.erase(
        std::remove_if(entries.begin(), entries.end(), [&](const HistoryEntry& entry) { return has(entry.revision); }),
        entries.end());
  }

  // Adds the entries of a record. removed, set: its two texts. isInSnapshot: the snapshot holds its changes.
  void Add(std::string_view removed, std::string_view set, bool isInSnapshot);
};

}  // namespace tavix::daemon
