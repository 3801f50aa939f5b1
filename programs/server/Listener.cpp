#include "programs/server/Listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr int kBacklog = 1024;

struct HostAndPort {
  std::string host;
  std::string port;
};

HostAndPort SplitAddress(const std::string& address) {
  const size_t colon = address.rfind(':');
  const bool bracketed = !address.empty() && address.front() == '[';
  const bool wellFormed = colon != std::string::npos && colon > 0 && colon + 1 < address.size() &&
                          (bracketed ? address[colon - 1] == ']' : address.find(':') == colon) &&
                          address.find_first_not_of("0123456789", colon + 1) == std::string::npos &&
                          address.size() - colon <= 6 && std::stoul(address.substr(colon + 1)) <= 65535;
  if (!wellFormed) throw osa::Exception("Can't listen on '%s': expected HOST:PORT or [V6]:PORT", address.c_str());
  const std::string host = bracketed ? address.substr(1, colon - 2) : address.substr(0, colon);
  return {host, address.substr(colon + 1)};
}

std::string ToText(const sockaddr* address, socklen_t size) {
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (getnameinfo(address, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return "?";
  return address->sa_family == AF_INET6 ? "[" + std::string(host) + "]:" + port : std::string(host) + ":" + port;
}

bool IsLoopback(const sockaddr* address) {
  if (address->sa_family == AF_INET6)
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
  return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == 127;
}

int OpenSocket(const addrinfo& address) {
  const int descriptor = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return -1;
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address.ai_family == AF_INET6) setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (bind(descriptor, address.ai_addr, address.ai_addrlen) == 0 && listen(descriptor, kBacklog) == 0)
    return descriptor;
  const int error = errno;
  close(descriptor);
  errno = error;
  return -1;
}

}  // namespace

std::vector<Listener> Listener::Open(const std::string& address, bool allowRemote) {
  const HostAndPort parts = SplitAddress(address);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(parts.host.c_str(), parts.port.c_str(), &hints, &found);
  if (error) throw osa::Exception("Can't listen on '%s': %s", address.c_str(), gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);

  std::vector<Listener> listeners;
  for (const addrinfo* one = addresses.get(); one; one = one->ai_next) {
    if (!allowRemote && !IsLoopback(one->ai_addr)) {
      throw osa::Exception("Can't listen on '%s': it is not loopback, and --allow-remote was not given",
                           address.c_str());
    }
    const int descriptor = OpenSocket(*one);
    if (descriptor < 0) throw osa::Exception("Can't listen on '%s': %s", address.c_str(), std::strerror(errno));
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &size);
    listeners.push_back(Listener(descriptor, ToText(reinterpret_cast<sockaddr*>(&bound), size)));
  }
  return listeners;
}

Listener::Listener(Listener&& other) noexcept : _descriptor(other._descriptor), _address(std::move(other._address)) {
  other._descriptor = -1;
}

Listener::~Listener() {
  if (_descriptor >= 0) close(_descriptor);
}

int Listener::Accept() const {
  return accept4(_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
}

std::string PeerAddress(int descriptor) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return "?";
  return ToText(reinterpret_cast<sockaddr*>(&peer), size);
}

}  // namespace tavix::daemon
