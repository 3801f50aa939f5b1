#include "tests/support/OwnSockets.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

namespace tavix::test {

namespace {

bool LeadsTo(int descriptor, unsigned short port) {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_family == AF_INET &&
         ntohs(peer.sin_port) == port;
}

}  // namespace

std::vector<int> FindConnectionsTo(unsigned short port) {
  std::vector<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename().string());
    if (LeadsTo(descriptor, port)) found.push_back(descriptor);
  }
  return found;
}

// The kernel may still move bytes on to the peer's buffer: it is full once nothing has moved for a while.
void FillOutput(int descriptor) {
  constexpr int kLongestResend = 400;  // milliseconds: the kernel sends again what was lost after half of that
  const std::string lines(64 * 1024, '\n');
  pollfd wait{descriptor, POLLOUT, 0};
  while (poll(&wait, 1, kLongestResend) > 0 &&
         send(descriptor, lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0)
    continue;
  while (send(descriptor, "\n", 1, MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
}

}  // namespace tavix::test
