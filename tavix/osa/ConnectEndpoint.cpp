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

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

ConnectResult Failed(int error) {
  return {-1, error, std::strerror(error)};
}

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Null when the host was not found; then "result" has the reason.
AddressList Resolve(const ServiceEndpoint& endpoint, ConnectResult& result) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
  if (error == EAI_SYSTEM) {
    result = Failed(errno);
  } else if (error == EAI_MEMORY) {
    result = Failed(ENOMEM);
  } else if (error != 0) {
    result.reason = gai_strerror(error);
  }
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

int AwaitConnect(int descriptor, const addrinfo& address, const Deadline& deadline) {
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

// The share of one of several addresses in the time that is left.
Deadline ShareOf(const Deadline& deadline, size_t addressesLeft) {
  if (deadline.IsNever()) return deadline;
  return Deadline(static_cast<unsigned int>(deadline.GetPollTimeout()) / static_cast<unsigned int>(addressesLeft));
}

ConnectResult ConnectAddress(const addrinfo& address, const Deadline& deadline) {
  Descriptor descriptor(
      socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
  const int error = descriptor ? AwaitConnect(descriptor.Get(), address, deadline) : errno;
  if (error != 0) return Failed(error);
  SetBlocking(descriptor.Get());
  SetUpConnection(descriptor.Get());
  return {descriptor.Release()};
}

ConnectResult ConnectTcp(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  ConnectResult result;
  const AddressList addresses = Resolve(endpoint, result);
  return addresses ? ConnectAddresses(addresses.get(), deadline) : result;
}

ConnectResult ConnectUnix(const std::string& path, const Deadline& deadline) {
  Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int error = descriptor ? ConnectToPath(descriptor.Get(), path, deadline) : errno;
  if (error != 0) return Failed(error);
  return {descriptor.Release()};
}

}  // namespace

// A peer that is gone without a word is found after two minutes: by probes while nothing is under way, by the time
// limit while something is, for then there are no probes.
void SetUpConnection(int descriptor) {
  SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 6);
  SetOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

ConnectResult ConnectAddresses(const addrinfo* addresses, const Deadline& deadline) {
  size_t addressesLeft = 0;
  for (const addrinfo* address = addresses; address; address = address->ai_next) ++addressesLeft;
  ConnectResult result = Failed(EHOSTUNREACH);
  for (const addrinfo* address = addresses; address && result.descriptor < 0; address = address->ai_next)
    result = ConnectAddress(*address, ShareOf(deadline, addressesLeft--));
  return result;
}

bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS || error == EADDRNOTAVAIL;
}

ConnectResult ConnectEndpoint(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  return endpoint.path.empty() ? ConnectTcp(endpoint, deadline) : ConnectUnix(endpoint.path, deadline);
}

}  // namespace tavix::osa
