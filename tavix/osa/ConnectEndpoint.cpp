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
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

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

// The error that a connect has ended with, 0 for none.
int GetConnectError(int descriptor) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) < 0 ? errno : error;
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

// The connects to a host's addresses, of which several may be pending. The first that succeeds counts; the others are
// closed with the object.
class PendingConnects {
 public:
  void Start(const addrinfo& address) {
    Descriptor descriptor(
        socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
    _isLastPending = false;
    if (descriptor && connect(descriptor.Get(), address.ai_addr, address.ai_addrlen) == 0) {
      _connected = std::move(descriptor);
    } else if (descriptor && (errno == EINPROGRESS || errno == EINTR)) {
      _pending.push_back(std::move(descriptor));
      _isLastPending = true;
    } else {
      _lastError = errno;
    }
  }

  // Until the last one that was started has failed.
  void AwaitLast(const Deadline& share) {
    while (!_connected && _isLastPending && AwaitEvent(share)) continue;
  }

  // Until all have failed.
  void AwaitAll(const Deadline& deadline) {
    while (!_connected && !_pending.empty() && AwaitEvent(deadline)) continue;
  }

  bool IsConnected() const { return static_cast<bool>(_connected); }

  ConnectResult TakeResult() {
    if (!_connected) return Failed(_isLastPending ? ETIMEDOUT : _lastError);
    SetBlocking(_connected.Get());
    SetUpConnection(_connected.Get());
    return {_connected.Release()};
  }

 private:
  // False when the time is up, or no event can be waited for.
  bool AwaitEvent(const Deadline& deadline) {
    std::vector<pollfd> waits;
    for (const Descriptor& descriptor : _pending) waits.push_back({descriptor.Get(), POLLOUT, 0});
    const int ready = poll(waits.data(), waits.size(), deadline.GetPollTimeout());
    if (ready < 0 && errno == EINTR) return true;
    if (ready < 0) {
      _lastError = errno;
      _isLastPending = false;
    }
    if (ready <= 0) return false;
    for (size_t i = waits.size(); i-- > 0;) {
      if (waits[i].revents != 0) Finish(i);
    }
    return true;
  }

  void Finish(size_t index) {
    const int error = GetConnectError(_pending[index].Get());
    if (error == 0) _connected = std::move(_pending[index]);
    if (_isLastPending && index + 1 == _pending.size()) {
      _isLastPending = false;
      _lastError = error;
    }
    _pending.erase(_pending.begin() + static_cast<std::ptrdiff_t>(index));
  }

  std::vector<Descriptor> _pending;  // in the order of their addresses
  Descriptor _connected;
  bool _isLastPending = false;    // the last one that was started, which is then the last of "_pending"
  int _lastError = EHOSTUNREACH;  // of the last one that was started
};

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
  PendingConnects connects;
  for (const addrinfo* address = addresses; address && !connects.IsConnected(); address = address->ai_next) {
    connects.Start(*address);
    connects.AwaitLast(ShareOf(deadline, addressesLeft--));
  }
  connects.AwaitAll(deadline);
  return connects.TakeResult();
}

bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

ConnectResult ConnectEndpoint(const ServiceEndpoint& endpoint, const Deadline& deadline) {
  return endpoint.path.empty() ? ConnectTcp(endpoint, deadline) : ConnectUnix(endpoint.path, deadline);
}

}  // namespace tavix::osa
