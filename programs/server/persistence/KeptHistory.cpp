#include "programs/server/persistence/KeptHistory.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace tavix::daemon {

namespace {

constexpr size_t kHeadBytes = 4096;  // the first line of an entry and its note have less

size_t CountBytes(const HistoryItem& item) {
  return item.lines.change.size() + item.lines.now.size();
}

KeptHistory::Item Omit(std::string_view lines, size_t bytes) {
  return {ReadHead(lines.substr(0, kHeadBytes)), bytes};
}

}  // namespace

// What is dropped from the queue is in the file by then: so the queue is looked at first.
HistoryParts::Range KeptHistory::GetRange() const {
  const HistoryState state = _layer.GetHistoryState();
  const HistoryParts::Range file = _file.GetRange();
  HistoryParts::Range range{std::max(state.oldest, state.lastLost), state.last};
  const bool goesOnInFile = file.last >= state.oldest && state.lastLost <= file.last;
  if (goesOnInFile) range.oldest = std::max(file.oldest, state.lastLost);
  range.oldest = std::min(range.oldest, range.last);
  return range;
}

KeptHistory::Block KeptHistory::ReadBelow(uint64_t revision, size_t maxBytes, size_t omittedFrom) const {
  const HistoryItems items = _layer.FindHistoryBelow(revision, HistoryParts::kPartBytes);
  return items.empty() ? ReadFile(revision, maxBytes, omittedFrom) : ReadQueue(items, maxBytes, omittedFrom);
}

KeptHistory::Block KeptHistory::ReadQueuedBelow(uint64_t revision) const {
  const HistoryItems items = _layer.FindHistoryBelow(revision, HistoryParts::kPartBytes);
  if (!items.empty()) return ReadQueue(items, kAllBytes, kAllBytes);
  Block end;
  end.isEnd = true;
  return end;
}

KeptHistory::Block KeptHistory::ReadQueue(const HistoryItems& items, size_t maxBytes, size_t omittedFrom) const {
  Block block;
  block.next = items.back()->revision;
  for (const auto& item : items) block.bytes += CountBytes(*item);
  const bool isOmitted = items.size() == 1 && block.bytes > omittedFrom;
  block.isTooLong = !isOmitted && block.bytes > maxBytes;
  if (block.isTooLong) return block;
  for (const auto& item : items) {
    const std::string lines = SpellEntry(item->revision, item->lines.change) + item->lines.now;
    if (isOmitted) {
      block.items.push_back(Omit(lines, block.bytes));
    } else {
      for (HistoryEntry& entry : ReadEntries(lines)) block.items.push_back({std::move(entry)});
    }
  }
  if (isOmitted) block.bytes = std::min(block.bytes, kHeadBytes);
  return block;
}

KeptHistory::Block KeptHistory::ReadFile(uint64_t revision, size_t maxBytes, size_t omittedFrom) const {
  Block block;
  std::optional<std::string> text;
  std::optional<HistoryParts::Part> part;
  bool isOmitted = false;
  while (!text) {
    part = _file.FindPart(revision);
    block.isEnd = !part;
    if (!part) return block;
    isOmitted = part->bytes > HistoryParts::kPartBytes && part->bytes > omittedFrom;
    block.isTooLong = !isOmitted && part->bytes > maxBytes;
    if (block.isTooLong) return block;
    text = _file.ReadPart(*part, isOmitted ? kHeadBytes : part->bytes);
  }
  block.next = part->first;
  block.bytes = text->size();
  if (isOmitted) block.items.push_back(Omit(*text, part->bytes));
  for (HistoryReader reader(isOmitted ? std::string_view() : *text); reader.Next();) {
    for (HistoryEntry& entry : ReadEntries(reader.GetLines())) {
      if (entry.revision < revision) block.items.push_back({std::move(entry)});
    }
  }
  std::reverse(block.items.begin(), block.items.end());
  return block;
}

}  // namespace tavix::daemon
