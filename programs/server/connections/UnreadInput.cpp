#include "programs/server/connections/UnreadInput.h"

#include <sys/socket.h>

#include <cstddef>

namespace tavix::daemon {

namespace {

constexpr size_t kMaxDropped = 4 * 1024 * 1024;

}  // namespace

void DropUnreadInput(int descriptor) noexcept {
  char bytes[16 * 1024];
  size_t dropped = 0;
  for (ssize_t count = 1; count > 0 && dropped < kMaxDropped; dropped += static_cast<size_t>(count)) {
    count = recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count <= 0) return;
  }
}

}  // namespace tavix::daemon
