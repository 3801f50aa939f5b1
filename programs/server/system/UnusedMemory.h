#pragma once

#include <atomic>
#include <ctime>

namespace tavix::daemon {

// Has the C library return large blocks to the system as soon as they are freed, for the rest of the process's life. By
// itself it keeps more the larger the blocks were, up to 64 MiB for each thread: after one reply with the whole store
// that much memory would stay taken. To be called before there are other threads.
void ReturnLargeBlocksAtOnce();

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
