#include "programs/server/history/HistoryPage.h"

#include "programs/server/history/EntryAnswer.h"

namespace tavix::daemon {

core::IniFile HistoryPage::Read(uint64_t revision, size_t maxEntries) {
  bool hasMore = true;
  _next = revision == KeptHistory::kNewest ? 0 : revision;
  size_t bytes = 0;
  for (uint64_t below = revision; _entries < maxEntries; below = _next) {
    const KeptHistory::Block block = _history.ReadBelow(below, kMaxBytes - bytes, kMaxBytes);
    hasMore = !block.isEnd;
    if (block.isEnd || block.isTooLong) break;
    bytes += block.bytes;
    AddBlock(block, maxEntries);
  }
  auto& scanned = _answer["scanned"];
  scanned["next"] = std::to_string(_next);
  scanned["more"] = hasMore ? "true" : "false";
  return std::move(_answer);
}

void HistoryPage::AddBlock(const KeptHistory::Block& block, size_t maxEntries) {
  for (KeptHistory::Item item : block.items) {
    if (_entries == maxEntries) return;
    _next = item.entry.revision;
    if (!Shows(item)) continue;
    AddEntry(item.entry, item.omittedBytes, _answer);
    ++_entries;
  }
  _next = block.next;
}

// Of a gap, and of an entry that was not read, nobody knows what it changed.
bool HistoryPage::Shows(KeptHistory::Item& item) const {
  if (item.omittedBytes > 0 || item.entry.command == kGapCommand) return true;
  _filter.Reduce(item.entry);
  return _filter.IsForAll() || !item.entry.IsEmpty() || !item.entry.is.IsEmpty();
}

}  // namespace tavix::daemon
