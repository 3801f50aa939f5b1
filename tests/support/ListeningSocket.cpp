#include "tests/support/ListeningSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace tavix::test {

namespace {

int Require(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

}  // namespace

ListeningSocket::ListeningSocket(int backlog)
    : _socket(Require(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Require(bind(_socket.Get(), reinterpret_cast<sockaddr*>(&address), size), "bind");
  Require(getsockname(_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  _port = ntohs(address.sin_port);
  if (backlog != kNotListening) Require(listen(_socket.Get(), backlog), "listen");
}

osa::Descriptor ListeningSocket::Accept() const {
  return osa::Descriptor(Require(accept4(_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC), "accept"));
}

std::string Receive(const osa::Descriptor& peer, size_t count) {
  std::string text;
  char part[64 * 1024];
  while (text.size() < count) {
    const ssize_t received = recv(peer.Get(), part, std::min(sizeof part, count - text.size()), 0);
    if (received < 0 && errno == EINTR) continue;
    if (received <= 0) break;
    text.append(part, static_cast<size_t>(received));
  }
  return text;
}

std::string ReceiveAll(const osa::Descriptor& peer) {
  return Receive(peer, std::numeric_limits<size_t>::max());
}

std::string ReceiveOnce(const osa::Descriptor& peer) {
  std::string text(1024 * 1024, '\0');
  const ssize_t received = recv(peer.Get(), text.data(), text.size(), 0);
  text.resize(received > 0 ? static_cast<size_t>(received) : 0);
  return text;
}

bool Send(const osa::Descriptor& peer, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(peer.Get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) sent += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace tavix::test
