#include "bench/Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kBacklog = 1024;

sockaddr_in LoopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

osa::Descriptor MakeSocket() {
  return Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "make a socket");
}

void SendAtOnce(const osa::Descriptor& descriptor) {
  const int on = 1;
  setsockopt(descriptor.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

LoopbackListener::LoopbackListener() : _descriptor(MakeSocket()) {
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(_descriptor.Get(), generic, size) != 0 || listen(_descriptor.Get(), kBacklog) != 0 ||
      getsockname(_descriptor.Get(), generic, &size) != 0)
    throw osa::Exception("Failed to listen: %s", std::strerror(errno));
  _port = ntohs(address.sin_port);
}

osa::Descriptor LoopbackListener::Accept() const {
  osa::Descriptor connection =
      Checked(accept4(_descriptor.Get(), nullptr, nullptr, SOCK_CLOEXEC), "accept a connection");
  SendAtOnce(connection);
  return connection;
}

osa::Descriptor ConnectToLoopback(int port) {
  osa::Descriptor connection = MakeSocket();
  const sockaddr_in address = LoopbackAddress(port);
  if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw osa::Exception("Failed to connect to port %d: %s", port, std::strerror(errno));
  SendAtOnce(connection);
  return connection;
}

}  // namespace tavix::bench
