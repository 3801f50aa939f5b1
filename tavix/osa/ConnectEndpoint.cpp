#include "tavix/osa/ConnectEndpoint.h"

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
#include <memory>

#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Null when the host was not found; then "result" has the reason.
AddressList Resolve(const ServiceEndpoint& endpoint, ConnectResult& result) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
  if (error != 0) result.reason = error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
  return AddressList(found, freeaddrinfo);
}

void SetOption(int descriptor, int level, int name, int value) {
  setsockopt(descriptor, level, name, &value, sizeof value);
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

ConnectResult Failed(int error) {
  return {-1, error, std::strerror(error)};
}

ConnectResult ConnectTcp(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  ConnectResult result;
  const AddressList addresses = Resolve(endpoint, result);
  if (!addresses) return result;
  int error = EHOSTUNREACH;
  for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
    const int descriptor =
        socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address->ai_protocol);
    error = descriptor < 0 ? errno : ConnectOne(descriptor, *address, deadline);
    if (error == 0) {
      SetBlocking(descriptor);
      SetUpConnection(descriptor);
      return {descriptor};
    }
    if (descriptor >= 0) close(descriptor);
  }
  return Failed(error);
}

ConnectResult ConnectUnix(const std::string& path, const Deadline& deadline) {
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int error = descriptor < 0 ? errno : ConnectToPath(descriptor, path, deadline);
  if (error == 0) return {descriptor};
  if (descriptor >= 0) close(descriptor);
  return Failed(error);
}

}  // namespace

// Finds a peer that is gone without a word after two minutes: by probes while nothing is under way, by the time limit
// while something is, for then there are no probes.
void SetUpConnection(int descriptor) {
  SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 6);
  SetOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

ConnectResult ConnectEndpoint(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  return endpoint.path.empty() ? ConnectTcp(endpoint, deadline) : ConnectUnix(endpoint.path, deadline);
}

}  // namespace tavix::osa
