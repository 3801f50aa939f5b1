#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// A port of 127.0.0.1 that the kernel picks for nobody else as long as this lives. Servers that set SO_REUSEADDR may be
// told to listen there, one after the other; while none does, a connect is refused.
class ReservedPort {
 public:
  ReservedPort() : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool isBound = setsockopt(_socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                         bind(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                         getsockname(_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) == 0;
    if (!isBound) throw std::system_error(errno, std::generic_category(), "a port");
    _port = ntohs(address.sin_port);
  }

  ReservedPort(const ReservedPort&) = delete;
  ReservedPort& operator=(const ReservedPort&) = delete;

  unsigned short Get() const { return _port; }

 private:
  const osa::Descriptor _socket;
  unsigned short _port = 0;
};

}  // namespace tavix::test
