#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/support/Patience.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// The socket that a service manager hears of its services by.
class NotifySocket {
 public:
  NotifySocket() : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    GetPath().copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("Failed to bind " + GetPath());
  }

  std::string GetPath() const { return _directory.Path("notify"); }

  // The next message; none when there is none for so long.
  std::optional<std::string> ReceiveFor(int milliseconds) {
    pollfd wait{_socket.Get(), POLLIN, 0};
    int ready = 0;
    do {
      ready = poll(&wait, 1, milliseconds);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return {};
    char text[1024];
    const ssize_t size = recv(_socket.Get(), text, sizeof text, 0);
    return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
  }

  // Drops messages until one holds that text, and returns it.
  std::string Await(const std::string& part) {
    std::string before;
    while (const std::optional<std::string> message =
               ReceiveFor(static_cast<int>(std::chrono::milliseconds(kPatience).count()))) {
      if (message->find(part) != std::string::npos) return *message;
      before += *message + "\n";
    }
    throw std::runtime_error("\"" + part + "\" did not come, only:\n" + before);
  }

 private:
  const TemporaryDirectory _directory;
  const osa::Descriptor _socket;
};

}  // namespace tavix::test
