#include "programs/server/system/UnusedMemory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tavix::daemon {

namespace {

constexpr std::time_t kSecondsBetween = 5;

// A large block costs system calls and its pages each time: with less, replies of the usual length take a tenth longer.
constexpr uint64_t kLargeBlock = 4 * 1024 * 1024;
constexpr uint64_t kMaxUnused = 32 * 1024 * 1024;  // with less, each restore asks the system for its memory anew
constexpr uint64_t kMinLargeBlock = 128 * 1024;    // the library's own, as the next one twice that
constexpr uint64_t kShareOfLargeBlock = 2048;
constexpr uint64_t kShareOfUnused = 1024;

#ifdef __GLIBC__
bool HasLimitsOfItsOwn() {
  const char* const tunables = std::getenv("GLIBC_TUNABLES");
  return std::getenv("MALLOC_MMAP_THRESHOLD_") || std::getenv("MALLOC_TRIM_THRESHOLD_") ||
         (tunables && std::strstr(tunables, "glibc.malloc."));
}
#endif

}  // namespace

FreedMemoryLimits FreedMemoryLimits::Choose(uint64_t memory) {
  const uint64_t large = std::clamp(memory / kShareOfLargeBlock, kMinLargeBlock, kLargeBlock);
  const uint64_t unused = std::clamp(memory / kShareOfUnused, 2 * kMinLargeBlock, kMaxUnused);
  return {static_cast<int>(large), static_cast<int>(unused)};
}

// A library that refuses the first limit goes on adapting both by itself, which the second one would end.
void LimitFreedMemory([[maybe_unused]] const FreedMemoryLimits& limits) {
#ifdef __GLIBC__
  if (!HasLimitsOfItsOwn() && mallopt(M_MMAP_THRESHOLD, limits.largeBlock) == 1)
    mallopt(M_TRIM_THRESHOLD, limits.maxUnused);
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
