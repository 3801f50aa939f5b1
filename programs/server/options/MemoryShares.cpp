#include "programs/server/options/MemoryShares.h"

#include <algorithm>
#include <cstdio>

namespace tavix::daemon {

namespace {

constexpr uint64_t kMegabyte = 1024 * 1024;
constexpr uint64_t kMinShare = 4 * kMegabyte;

size_t Share(uint64_t share, size_t max) {
  return static_cast<size_t>(std::clamp<uint64_t>(share, kMinShare, max));
}

}  // namespace

Limits ShareMemory(uint64_t memoryBytes) {
  Limits limits;
  limits.allBacklogBytes = Share(memoryBytes / 8, limits.allBacklogBytes);
  limits.allRequestBytes = Share(memoryBytes / 8, limits.allRequestBytes);
  limits.storeBytes = Share(memoryBytes / 4, limits.storeBytes);
  return limits;
}

std::string FormatSize(uint64_t bytes) {
  char text[32];
  const bool isWhole = bytes % kMegabyte == 0;
  std::snprintf(text, sizeof text, "%.*f MiB", isWhole ? 0 : 1, static_cast<double>(bytes) / kMegabyte);
  return text;
}

}  // namespace tavix::daemon
