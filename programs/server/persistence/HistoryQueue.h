#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "programs/server/persistence/FoundHistory.h"
#include "programs/server/persistence/HistoryText.h"

namespace tavix::daemon {

// The entries of changes that FILE.history lacks, oldest first, and which of them the journals lack. Gives each saved
// change its revision. A revision without an entry stands for one that is lost.
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
  // otherwise, a gap follows.
  void Load(const FoundHistory& found, uint64_t inFile);

  // Gives the next revision. Returns the entry as it goes into a record; empty: it is lost. lines: empty, it is lost.
  std::string Add(std::optional<HistoryLines> lines) noexcept;

  uint64_t GetLast() const { return _last; }

  // The entries that the journal lacks, and that it has them now.
  std::string GetUnjournaled() const { return SpellBehind(_journaled); }
  void OnJournaled() { _journaled = _last; }

  // The same for the next journal.
  void BeginSnapshot() { _nextJournaled = _last; }
  std::string GetUnjournaledByNext() const { return SpellBehind(_nextJournaled); }
  void OnNextJournaled() { _nextJournaled = _last; }
  void Follow() { _journaled = _nextJournaled; }

  // Moves the entries up to a revision out, for the file.
  std::vector<HistoryItem> TakeUpTo(uint64_t revision);

 private:
  std::string SpellBehind(uint64_t revision) const;
  void Append(uint64_t revision, HistoryLines&& lines);
  HistoryItem TakeFirst();

  const size_t _maxBytes;
  std::deque<HistoryItem> _entries;
  size_t _bytes = 0;
  uint64_t _last = 0;
  uint64_t _journaled = 0;      // the journal has the entries up to this one
  uint64_t _nextJournaled = 0;  // the snapshot, or the next journal, has them up to this one
};

}  // namespace tavix::daemon
