#pragma once

#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/settings/common/PatternIndex.h"

namespace tavix::settings::common {

// Copies all texts of an index in pieces, so that nobody waits for all of them. It is noted which come and go
// meanwhile: the copy is what the index holds at the end.
//
// Threads: not safe on its own; what is needed is named with each operation.
class TextCopy {
 public:
  // These texts come or go, or may do so. Under the lock for changes of the index.
  void OnChanged(const std::vector<PatternIndex::Id>& texts);

  // Copies some more. False once all are copied, but for those that changed. For a lock against changes of the index.
  bool CopyPiece(const PatternIndex& index);

  // Copies what has changed. The same, and nothing may change afterwards.
  void Finish(const PatternIndex& index);

  // Adds the texts to "out". Under no lock.
  void MoveTo(std::set<std::string>& out);

 private:
  using Copied = std::pair<PatternIndex::Id, std::string>;

  void RemoveChanged();

  std::deque<Copied> _copied;  // in ascending order of ids; grows without moving all of them under the lock
  PatternIndex::Id _next = 0;
  std::vector<PatternIndex::Id> _changed;  // may hold one several times
  std::vector<std::string> _current;       // of these, as they are at the end
};

}  // namespace tavix::settings::common
