#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/support/Patience.h"

namespace tavix::test {

// A client of a bridge's socket.
//
// Threads: one.
// Errors:  std::runtime_error; what waits gives up after kPatience.
class ControlClient {
 public:
  explicit ControlClient(const std::string& path) : _socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("No connection to " + path);
  }

  void Send(const std::string& text) const {
    if (send(_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("Nobody takes '" + text + "'");
  }

  bool HasBytes() const {
    pollfd look{_socket.Get(), POLLIN, 0};
    return poll(&look, 1, 0) > 0;
  }

  // All that comes until the connection ends.
  std::string ReadToEnd() const {
    std::string text;
    char bytes[4096];
    while (true) {
      pollfd look{_socket.Get(), POLLIN, 0};
      if (poll(&look, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0)
        throw std::runtime_error("No end behind '" + text + "'");
      const ssize_t size = recv(_socket.Get(), bytes, sizeof bytes, 0);
      if (size < 0) throw std::runtime_error("The connection was lost behind '" + text + "'");
      if (size == 0) return text;
      text.append(bytes, static_cast<size_t>(size));
    }
  }

 private:
  osa::Descriptor _socket;
};

}  // namespace tavix::test
