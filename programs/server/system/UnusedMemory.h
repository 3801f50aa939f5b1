#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace tavix::daemon {

// What the C library does with memory that was freed. In bytes; a plain value.
struct FreedMemoryLimits {
  int largeBlock;  // from this length on, a block is returned to the system at once
  int maxUnused;   // that a thread keeps at the end of its memory

  // Shares of the memory that the process may use.
  static FreedMemoryLimits Choose(uint64_t memory);
};

// Has the C library keep to these limits for the rest of the process's life, unless its environment has other ones. By
// itself it keeps more the larger the blocks were, up to 64 MiB for each thread: after one reply with the whole store
// that much memory would stay taken. To be called before there are other threads.
void LimitFreedMemory(const FreedMemoryLimits& limits);

// Returns memory to the system that the C library keeps after many small allocations were freed. Looking for it takes
// milliseconds, so it is done seldom, and by a thread that holds no lock.
//
// Threads: any.
class UnusedMemory {
 public:
  // Much was freed.
  void Note() { _isNoted.store(true, std::memory_order_relaxed); }

  // Returns it if some was noted, but not again within seconds: then a later call does.
  void Return() {
    if (_isNoted.load(std::memory_order_relaxed)) ReturnNoted();
  }

 private:
  void ReturnNoted();

  std::atomic<bool> _isNoted{false};
  std::atomic<std::time_t> _next{0};  // not before that, of the monotonic clock
};

}  // namespace tavix::daemon
