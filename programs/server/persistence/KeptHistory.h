#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "programs/server/persistence/HistoryEntry.h"
#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/HistoryParts.h"
#include "programs/server/persistence/SharedUserLayer.h"

namespace tavix::daemon {

// The history as readers find it: entries that wait in memory for their file, and those of both files behind them. The
// newest come first, block by block.
//
// Threads: any, also beside changes. GetRange and ReadQueuedBelow read no file, but wait while the layer's journal is
//          written; ReadBelow reads a file.
// Locks:   those of the layer and the file, one after the other.
// Errors:  ReadBelow throws osa::Exception that names the file and the reason, and std::bad_alloc.
class KeptHistory {
 public:
  static constexpr uint64_t kNewest = std::numeric_limits<uint64_t>::max();
  static constexpr size_t kAllBytes = std::numeric_limits<size_t>::max();

  struct Item {
    HistoryEntry entry;
    size_t omittedBytes = 0;  // not 0: of an entry so long that only who made it, and when, was read
  };

  struct Block {
    std::vector<Item> items;  // the newest first
    uint64_t next = 0;        // all revisions from this one on were looked at
    size_t bytes = 0;         // that were looked at
    bool isEnd = false;       // there are none below
    bool isTooLong = false;   // the block has more than the bytes that were asked for, and was not looked at
  };

  // Both outlive the object.
  KeptHistory(SharedUserLayer& layer, const HistoryFile& file) : _layer(layer), _file(file) {}

  // All changes above "oldest" are known, up to the last one.
  HistoryParts::Range GetRange() const;

  // Some entries below a revision. A block of more than "maxBytes" is not looked at; one entry of more than
  // "omittedFrom" bytes is read in part only.
  Block ReadBelow(uint64_t revision, size_t maxBytes, size_t omittedFrom) const;

  // The same of entries that wait in memory alone, in whole, and without a file. Behind the last of them it is the end.
  Block ReadQueuedBelow(uint64_t revision) const;

 private:
  Block ReadQueue(const HistoryItems& items, size_t maxBytes, size_t omittedFrom) const;
  Block ReadFile(uint64_t revision, size_t maxBytes, size_t omittedFrom) const;

  SharedUserLayer& _layer;
  const HistoryFile& _file;
};

}  // namespace tavix::daemon
