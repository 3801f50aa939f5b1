#include "programs/server/connections/ConnectionRoom.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include <algorithm>

#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

namespace {

constexpr rlim_t kReservedDescriptors = 32;  // standard streams, listeners and, above all, the files of a save
constexpr rlim_t kDescriptorsOfALoop = 2;
constexpr rlim_t kMaxTable = 16384;  // entries of a pointer each, 128 KiB at most

// The table never shrinks.
void GrowTable(rlim_t descriptors) noexcept {
  const osa::Descriptor any(eventfd(0, EFD_CLOEXEC));
  const osa::Descriptor last(fcntl(any.Get(), F_DUPFD_CLOEXEC, static_cast<int>(descriptors) - 1));
}

}  // namespace

Limits MakeRoomForConnections(Limits limits, size_t loops) noexcept {
  const rlim_t reserved = kReservedDescriptors + kDescriptorsOfALoop * loops;
  const rlim_t needed = limits.connections + reserved;
  rlimit possible{};
  if (getrlimit(RLIMIT_NOFILE, &possible) != 0) return limits;
  if (possible.rlim_cur < needed) {
    possible.rlim_cur = std::min(needed, possible.rlim_max);
    setrlimit(RLIMIT_NOFILE, &possible);
  }
  GrowTable(std::min({needed, possible.rlim_cur, kMaxTable}));
  const rlim_t descriptors = std::max(possible.rlim_cur, reserved + 1);
  limits.connections = static_cast<size_t>(std::min(needed, descriptors) - reserved);
  return limits;
}

}  // namespace tavix::daemon
