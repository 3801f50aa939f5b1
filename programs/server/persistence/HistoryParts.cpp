#include "programs/server/persistence/HistoryParts.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tavix::daemon {

void HistoryParts::Add(uint64_t revision, bool isGap, uint64_t offset, size_t bytes) {
  if (revision <= _range.last) return;
  const bool isNext = _range.last != 0 && revision == _range.last + 1;
  if (isGap || !isNext) _range.oldest = isGap ? revision : revision - 1;
  _range.last = revision;
  // What is damaged, or not new, is in no part: between two it may be any number of bytes.
  const bool goesOn = !_current.empty() && _current.back().offset + _current.back().bytes == offset &&
                      _current.back().bytes + bytes <= kPartBytes;
  if (goesOn) {
    _current.back().bytes += bytes;
  } else {
    _current.push_back({revision, false, offset, bytes, _generation});
  }
}

void HistoryParts::DropOld() {
  ++_generation;
  _old.clear();
  for (Part& part : _current) part.generation = _generation;
  _range.oldest = std::max(_range.oldest, _current.empty() ? _range.last : _current.front().first - 1);
}

void HistoryParts::Rotate() {
  ++_generation;
  _old = std::exchange(_current, {});
  for (Part& part : _old) {
    part.isOld = true;
    part.generation = _generation;
  }
  if (!_old.empty()) _range.oldest = std::max(_range.oldest, _old.front().first - 1);
}

std::optional<HistoryParts::Part> HistoryParts::FindBelow(uint64_t revision) const {
  for (const std::vector<Part>* parts : {&_current, &_old}) {
    const auto end = std::partition_point(parts->begin(), parts->end(),
                                          [revision](const Part& part) { return part.first < revision; });
    if (end != parts->begin()) return *std::prev(end);
  }
  return std::nullopt;
}

}  // namespace tavix::daemon
