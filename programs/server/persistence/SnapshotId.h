#pragma once

#include <cstdint>

namespace tavix::daemon {

// Which snapshot a journal follows. The generation alone would take the snapshot of another device for this one's.
struct SnapshotId {
  uint64_t generation = 0;  // 0: none of ours
  uint32_t checksum = 0;    // as its last line says

  bool operator==(const SnapshotId& other) const {
    return generation == other.generation && checksum == other.checksum;
  }
};

}  // namespace tavix::daemon
