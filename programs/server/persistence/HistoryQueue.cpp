#include "programs/server/persistence/HistoryQueue.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace tavix::daemon {

namespace {

size_t CountBytes(const HistoryLines& lines) {
  return lines.change.size() + lines.now.size();
}

}  // namespace

void HistoryQueue::Load(const FoundHistory& found, uint64_t inFile) {
  for (const HistoryEntry& entry : found.entries) Append(entry.revision, EncodeEntry(entry));
  _last = std::max(inFile, found.GetRevision());
  if (found.lacksEntries || found.GetRevision() < inFile) Append(++_last, EncodeEntry(MakeGap()));
  _journaled = _last;
}

std::string HistoryQueue::Add(std::optional<HistoryLines> lines) noexcept {
  ++_last;
  try {
    if (!lines || CountBytes(*lines) > _maxBytes / 2) return "";
    std::string text = SpellEntry(_last, lines->change);
    Append(_last, std::move(*lines));
    return text;
  } catch (const std::exception&) {
    return "";
  }
}

void HistoryQueue::Append(uint64_t revision, HistoryLines&& lines) {
  const size_t bytes = CountBytes(lines);
  _entries.push_back({revision, std::move(lines)});
  _bytes += bytes;
  while (_bytes > _maxBytes) TakeFirst();
}

HistoryItem HistoryQueue::TakeFirst() {
  HistoryItem first = std::move(_entries.front());
  _entries.pop_front();
  _bytes -= CountBytes(first.lines);
  return first;
}

std::vector<HistoryItem> HistoryQueue::TakeUpTo(uint64_t revision) {
  std::vector<HistoryItem> items;
  items.reserve(_entries.size());
  while (!_entries.empty() && _entries.front().revision <= revision) items.push_back(TakeFirst());
  return items;
}

std::string HistoryQueue::SpellBehind(uint64_t revision) const {
  std::string text;
  for (const HistoryItem& entry : _entries) {
    if (entry.revision > revision) text += SpellEntry(entry.revision, entry.lines.change);
  }
  return text;
}

}  // namespace tavix::daemon
