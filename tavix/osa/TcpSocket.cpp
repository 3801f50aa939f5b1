#include "tavix/osa/TcpSocket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tavix/osa/Exception.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

constexpr unsigned int kShortestTimeout = 1000;

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList Resolve(const ServiceEndpoint& endpoint) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
  if (error) {
    throw Exception("Failed to connect to %s port %u: %s", endpoint.host.c_str(), unsigned{endpoint.port},
                    error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error));
  }
  return AddressList(found, freeaddrinfo);
}

void SetOption(int descriptor, int level, int name, int value) {
  setsockopt(descriptor, level, name, &value, sizeof value);
}

// Finds a peer that is gone without a word after two minutes: by probes while nothing is under way, by the time limit
// while something is, for then there are no probes.
void SetUp(int descriptor) {
  SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 6);
  SetOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

// Waits for a connect that is under way; the error that it ended with, 0 for none.
int FinishConnect(int descriptor, const Deadline& deadline) {
  pollfd wait{descriptor, POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&wait, 1, deadline.GetPollTimeout());
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) return errno;
  if (ready == 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) < 0) return errno;
  return error;
}

int ConnectOne(int descriptor, const addrinfo& address, const Deadline& deadline) {
  if (connect(descriptor, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  return FinishConnect(descriptor, deadline);
}

// A unix socket whose queue is full can't be waited for by poll(2), but its connect can have a time limit.
int ConnectToPath(int descriptor, const std::string& path, const Deadline& deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  int result = 0;
  do {
    const int left = deadline.IsNever() ? 0 : std::max(deadline.GetPollTimeout(), 1);  // 0 stands for no limit
    const timeval limit{left / 1000, left % 1000 * 1000};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    result = connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result < 0 && errno == EINTR && deadline.GetPollTimeout() != 0);
  if (result < 0) return errno == EAGAIN || errno == EINTR ? ETIMEDOUT : errno;
  const timeval none{};
  setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none);
  return 0;
}

void SetBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags >= 0) fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK);
}

}  // namespace

TcpSocket::TcpSocket(unsigned short) {}

TcpSocket::TcpSocket(AdoptTag, int descriptor) : _descriptor(descriptor) {
  const int flags = fcntl(descriptor, F_GETFD);
  if (flags >= 0) fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
  SetUp(descriptor);
}

std::unique_ptr<TcpSocket> TcpSocket::Adopt(int descriptor) {
  return std::unique_ptr<TcpSocket>(new TcpSocket(AdoptTag{}, descriptor));
}

TcpSocket::~TcpSocket() {
  Close();
}

void TcpSocket::Connect(const char* host, unsigned short port, unsigned int timeout) {
  Close();
  const Deadline deadline(std::max(timeout, kShortestTimeout));
  const ServiceEndpoint endpoint = FindServiceEndpoint(host ? host : "", port);
  if (endpoint.path.empty()) {
    ConnectTcp(endpoint, deadline);
  } else {
    ConnectUnix(endpoint.path, deadline);
  }
}

void TcpSocket::ConnectTcp(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  const AddressList addresses = Resolve(endpoint);
  int error = EHOSTUNREACH;
  for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
    _descriptor = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address->ai_protocol);
    if (_descriptor < 0) {
      error = errno;
      continue;
    }
    error = ConnectOne(_descriptor, *address, deadline);
    if (error == 0) {
      SetBlocking(_descriptor);
      SetUp(_descriptor);
      return;
    }
    Close();
  }
  throw Exception("Failed to connect to %s port %u: %s", endpoint.host.c_str(), unsigned{endpoint.port},
                  std::strerror(error));
}

void TcpSocket::ConnectUnix(const std::string& path, const Deadline& deadline) {
  _descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int error = _descriptor < 0 ? errno : ConnectToPath(_descriptor, path, deadline);
  if (error == 0) return;
  Close();
  throw Exception("Failed to connect to unix:%s: %s", path.c_str(), std::strerror(error));
}

void TcpSocket::Shutdown() noexcept {
  if (_descriptor >= 0) shutdown(_descriptor, SHUT_RDWR);
}

void TcpSocket::Close() noexcept {
  if (_descriptor >= 0) close(_descriptor);
  _descriptor = -1;
}

}  // namespace tavix::osa
