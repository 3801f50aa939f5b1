#include "tests/support/TcpProxy.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>
#include <vector>

namespace tavix::test {

namespace {

constexpr std::size_t kMaxHeld = 64 * 1024;

int Require(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

osa::Descriptor ConnectTo(unsigned short port) {
  osa::Descriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (!server || connect(server.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) server.Reset();
  return server;
}

// So that single bytes really go as such.
void SetUpSocket(const osa::Descriptor& peer) {
  const int one = 1;
  setsockopt(peer.Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  fcntl(peer.Get(), F_SETFL, O_NONBLOCK);
}

bool IsOnlyLater(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EINTR);
}

}  // namespace

TcpProxy::TcpProxy(unsigned short target)
    : _target(target), _listener(1024), _wake(Require(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
  fcntl(_listener.GetDescriptor(), F_SETFL, O_NONBLOCK);
  _thread = std::thread(&TcpProxy::Run, this);
}

TcpProxy::~TcpProxy() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _isEnding = true;
  }
  Wake();
  _thread.join();
}

void TcpProxy::SetMode(Mode mode) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = mode;
  }
  Wake();
}

void TcpProxy::CutAll() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _pairs.clear();
  }
  Wake();
}

void TcpProxy::HalfCloseAll() {
  std::lock_guard<std::mutex> lock(_mutex);
  for (Pair& pair : _pairs) {
    shutdown(pair.client.Get(), SHUT_WR);
    pair.down.hasEnded = true;
    pair.down.held.clear();
  }
}

void TcpProxy::Run() {
  while (true) {
    std::vector<pollfd> looks{{_wake.Get(), POLLIN, 0}, {_listener.GetDescriptor(), POLLIN, 0}};
    {
      std::lock_guard<std::mutex> lock(_mutex);
      if (_isEnding) return;
      for (const Pair& pair : _pairs) {
        if (_mode == Mode::kStall) break;
        const auto interest = [](const Direction& in, const Direction& out) {
          return static_cast<short>((!in.hasEnded && in.held.empty() ? POLLIN : 0) | (out.held.empty() ? 0 : POLLOUT));
        };
        // Without an interest a socket that hung up would wake this for ever.
        const short client = interest(pair.up, pair.down);
        const short server = interest(pair.down, pair.up);
        looks.push_back({client != 0 ? pair.client.Get() : -1, client, 0});
        looks.push_back({server != 0 ? pair.server.Get() : -1, server, 0});
      }
    }
    poll(looks.data(), looks.size(), -1);
    std::uint64_t count;
    [[maybe_unused]] const ssize_t ignored = read(_wake.Get(), &count, sizeof count);
    std::lock_guard<std::mutex> lock(_mutex);
    RunRound(_mode);
  }
}

void TcpProxy::RunRound(Mode mode) {
  Accept(mode);
  if (mode == Mode::kStall) return;
  _pairs.remove_if([&](Pair& pair) { return !Carry(pair, mode); });
}

void TcpProxy::Accept(Mode mode) {
  while (true) {
    osa::Descriptor client(accept4(_listener.GetDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) return;
    ++_accepted;
    osa::Descriptor server;
    if (mode != Mode::kRefuse) server = ConnectTo(_target);
    if (!server) continue;
    SetUpSocket(client);
    SetUpSocket(server);
    _pairs.push_back({std::move(client), std::move(server), {}, {}});
  }
}

// False when the pair is over.
bool TcpProxy::Carry(Pair& pair, Mode mode) {
  return Move(pair.client, pair.server, pair.up, mode) && Move(pair.server, pair.client, pair.down, mode) &&
         !(pair.up.hasEnded && pair.down.hasEnded);
}

bool TcpProxy::Move(const osa::Descriptor& from, const osa::Descriptor& to, Direction& direction, Mode mode) {
  if (direction.hasEnded) return true;
  if (direction.held.empty()) {
    char part[kMaxHeld];
    const ssize_t count = recv(from.Get(), part, sizeof part, 0);
    if (count > 0) {
      _bytes += static_cast<std::size_t>(count);
      direction.held.assign(part, static_cast<std::size_t>(count));
    } else if (count == 0) {
      direction.hasEnded = true;
      shutdown(to.Get(), SHUT_WR);
    } else if (!IsOnlyLater(count)) {
      return false;
    }
  }
  while (!direction.held.empty()) {
    const std::size_t size = mode == Mode::kDribble ? 1 : direction.held.size();
    const ssize_t count = send(to.Get(), direction.held.data(), size, MSG_NOSIGNAL);
    if (count <= 0) return IsOnlyLater(count);
    direction.held.erase(0, static_cast<std::size_t>(count));
  }
  return true;
}

void TcpProxy::Wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(_wake.Get(), &one, sizeof one);
}

}  // namespace tavix::test
