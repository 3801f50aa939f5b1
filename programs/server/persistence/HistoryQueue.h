#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programs/server/persistence/FoundHistory.h"
#include "programs/server/persistence/HistoryText.h"

namespace tavix::daemon {

// What there is beside FILE.history.
struct HistoryState {
  uint64_t last = 0;      // revision
  uint64_t oldest = 0;    // all entries of revisions above this one are there
  uint64_t lastLost = 0;  // the last revision that is a gap, or without an entry; 0: none
};

// The entries of changes that FILE.history lacks, oldest first, and which of them the journals lack. Gives each saved
// change its revision. A revision without an entry stands for one that is lost, as a gap does.
//
// In order: Load; then changes are added, each behind the one before. What a change's own record does not take along is
// taken by a later record of the same journal. BeginSnapshot is the snapshot's moment: from there on the next journal
// takes entries, too, and becomes the journal with Follow.
//
// Threads: one at a time.
// Errors:  Add throws nothing; the others std::bad_alloc, and have changed nothing then.
class HistoryQueue {
 public:
  // maxBytes: of all entries together, beyond which the oldest are lost; of one entry, the half. 0: history is off.
  explicit HistoryQueue(size_t maxBytes) : _maxBytes(maxBytes) {}

  bool IsOn() const { return _maxBytes > 0; }

  // found: without entries that FILE.history has. inFile: the last revision there. When the user settings changed
  // otherwise, a gap follows. Without a history it remembers the last revision alone.
  void Load(const FoundHistory& found, uint64_t inFile);

  // Gives the next revision. Returns the entry as it goes into a record; empty: it is lost. lines: empty, or too many:
  // a gap takes the place of the entry.
  std::string Add(std::optional<HistoryLines> lines) noexcept;

  uint64_t GetLast() const { return _last; }

  // The entries that the journal lacks, and that it has them now.
  std::string GetUnjournaled() const { return SpellBehind(_journaled); }
  void OnJournaled() { _journaled = _last; }

  // The last that the journal has; and that the disk has the journal up to one.
  uint64_t GetJournaled() const { return _journaled; }
  void OnSynced(uint64_t revision) { _synced = std::max(_synced, revision); }

  // What a power cut may take from the journal, or what it lacks.
  HistoryItems FindUnsynced() const { return FindBetween(_synced, _last); }

  // The same for the next journal.
  void BeginSnapshot() { _nextJournaled = _snapshotLast = _last; }
  std::string GetUnjournaledByNext() const { return SpellBehind(_nextJournaled); }
  void OnNextJournaled() { _nextJournaled = _last; }
  void Follow();

  // The entries up to a revision, for the file; and that it has them, or that they are lost.
  HistoryItems GetUpTo(uint64_t revision) const { return FindBetween(0, revision); }
  void DropUpTo(uint64_t revision);

  // Entries below a revision, the newest first: one, and further ones as long as all have no more than so many bytes.
  HistoryItems FindBelow(uint64_t revision, size_t maxBytes) const;

  HistoryState GetState() const { return {_last, _entries.empty() ? _last : GetFirst() - 1, _lastLost}; }

 private:
  std::string SpellBehind(uint64_t revision) const;
  HistoryItems FindBetween(uint64_t revision, uint64_t last) const;
  void Append(uint64_t revision, HistoryLines&& lines);
  void AppendGap(uint64_t revision);
  uint64_t GetFirst() const { return _entries.front()->revision; }
  void DropFirst();

  const size_t _maxBytes;
  std::deque<std::shared_ptr<const HistoryItem>> _entries;
  size_t _bytes = 0;
  uint64_t _last = 0;
  uint64_t _lastLost = 0;
  uint64_t _journaled = 0;      // the journal has the entries up to this one
  uint64_t _synced = 0;         // the disk has them up to this one, in the journal or the snapshot
  uint64_t _snapshotLast = 0;   // at the moment of the last snapshot
  uint64_t _nextJournaled = 0;  // the snapshot, or the next journal, has them up to this one
};

}  // namespace tavix::daemon
