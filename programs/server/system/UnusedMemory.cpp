#include "programs/server/system/UnusedMemory.h"

#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tavix::daemon {

namespace {

constexpr std::time_t kSecondsBetween = 5;

#ifdef __GLIBC__
constexpr int kLargeBlock = 4 * 1024 * 1024;  // below it, replies of the usual length would cost a tenth more
constexpr int kMaxUnused = 8 * 1024 * 1024;   // at the end of a thread's memory
#endif

}  // namespace

void ReturnLargeBlocksAtOnce() {
#ifdef __GLIBC__
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kMaxUnused);
#endif
}

void UnusedMemory::ReturnNoted() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::time_t next = _next;
  if (now.tv_sec < next || !_next.compare_exchange_strong(next, now.tv_sec + kSecondsBetween)) return;
  _isNoted = false;
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

}  // namespace tavix::daemon
