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
  const uint64_t revision = found.GetRevision();
  _last = std::max({inFile, revision, found.seenRevision});
  if (!IsOn()) {
    if (found.IsKnown()) ++_last;  // stands for all changes until there is a history again
    return;
  }
  uint64_t before = inFile;
  for (const auto& [number, entry] : found.entries) {
    if (number > before + 1) AppendGap(number - 1);
    before = std::max(before, number);
    Append(number, EncodeEntry(entry));
  }
  if (found.lacksEntries || found.wasEdited || revision < _last) ++_last;
  if (before < _last) AppendGap(_last);
  _journaled = _synced = _last;
}

void HistoryQueue::Follow() {
  _journaled = _nextJournaled;
  OnSynced(_snapshotLast);
}

void HistoryQueue::AppendGap(uint64_t revision) {
  _lastLost = revision;
  Append(revision, EncodeEntry(MakeGap()));
}

std::string HistoryQueue::Add(std::optional<HistoryLines> lines) noexcept {
  ++_last;
  try {
    if (!lines || CountBytes(*lines) > _maxBytes / 2) {
      _lastLost = _last;
      lines = EncodeEntry(MakeGap());
    }
    std::string text = SpellEntry(_last, lines->change);
    Append(_last, std::move(*lines));
    return text;
  } catch (const std::exception&) {
    _lastLost = _last;
    return "";
  }
}

void HistoryQueue::Append(uint64_t revision, HistoryLines&& lines) {
  const size_t bytes = CountBytes(lines);
  _entries.push_back(std::make_shared<const HistoryItem>(HistoryItem{revision, std::move(lines)}));
  _bytes += bytes;
  while (_bytes > _maxBytes) {
    _lastLost = std::max(_lastLost, GetFirst());
    DropFirst();
  }
}

void HistoryQueue::DropFirst() {
  _bytes -= CountBytes(_entries.front()->lines);
  _entries.pop_front();
}

// Behind the first revision, up to the other.
HistoryItems HistoryQueue::FindBetween(uint64_t revision, uint64_t last) const {
  HistoryItems items;
  auto entry = std::partition_point(_entries.begin(), _entries.end(),
                                    [revision](const auto& some) { return some->revision <= revision; });
  for (; entry != _entries.end() && (*entry)->revision <= last; ++entry) items.push_back(*entry);
  return items;
}

void HistoryQueue::DropUpTo(uint64_t revision) {
  while (!_entries.empty() && GetFirst() <= revision) DropFirst();
}

HistoryItems HistoryQueue::FindBelow(uint64_t revision, size_t maxBytes) const {
  HistoryItems items;
  size_t bytes = 0;
  auto entry = std::partition_point(_entries.begin(), _entries.end(),
                                    [revision](const auto& some) { return some->revision < revision; });
  while (entry != _entries.begin()) {
    --entry;
    bytes += CountBytes((*entry)->lines);
    if (!items.empty() && bytes > maxBytes) break;
    items.push_back(*entry);
  }
  return items;
}

std::string HistoryQueue::SpellBehind(uint64_t revision) const {
  std::string text;
  for (const auto& entry : _entries) {
    if (entry->revision > revision) text += SpellEntry(entry->revision, entry->lines.change);
  }
  return text;
}

}  // namespace tavix::daemon
