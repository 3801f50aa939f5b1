#pragma once

#include <cstddef>

namespace tavix::test {

// While it lives, no thread of the process gets more memory at once than that many bytes: as on a device without more.
class RefusedMemory {
 public:
  explicit RefusedMemory(size_t most);
  ~RefusedMemory();

  RefusedMemory(const RefusedMemory&) = delete;
  RefusedMemory& operator=(const RefusedMemory&) = delete;
};

// How often this thread was given memory.
size_t CountAllocations();

}  // namespace tavix::test
