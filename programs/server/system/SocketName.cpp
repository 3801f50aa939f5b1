#include "programs/server/system/SocketName.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>

namespace tavix::daemon {

namespace {

bool IsMappedLoopback(const in6_addr& address) {
  return IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == 127;
}

std::string UnixToText(const sockaddr* address, socklen_t size) {
  const auto* const name = reinterpret_cast<const sockaddr_un*>(address);
  const size_t start = offsetof(sockaddr_un, sun_path);
  if (size <= start) return "unix:";
  return "unix:" + std::string(name->sun_path, strnlen(name->sun_path, size - start));
}

std::optional<ucred> FindUnixPeer(int descriptor) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return {};
  return peer;
}

}  // namespace

std::string ToText(const sockaddr* address, socklen_t size) {
  if (address->sa_family == AF_UNIX) return UnixToText(address, size);
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (getnameinfo(address, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return "?";
  return address->sa_family == AF_INET6 ? "[" + std::string(host) + "]:" + port : std::string(host) + ":" + port;
}

bool IsLocal(const sockaddr* address) {
  if (address->sa_family == AF_UNIX) return true;
  if (address->sa_family == AF_INET6) {
    const in6_addr& host = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&host) || IsMappedLoopback(host);
  }
  return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == 127;
}

std::optional<ucred> FindPeerProcess(int descriptor) {
  int domain = 0;
  socklen_t size = sizeof domain;
  if (getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) return {};
  return FindUnixPeer(descriptor);
}

std::optional<ucred> FindPeerProcess(int descriptor, const SocketAddress& address) {
  if (address.Get()->sa_family != AF_UNIX) return {};
  return FindUnixPeer(descriptor);
}

std::string PeerWithoutPort(int descriptor) {
  const std::optional<ucred> process = FindPeerProcess(descriptor);
  return PeerWithoutPort(process, PeerName(descriptor, process));
}

std::string PeerWithoutPort(const std::optional<ucred>& process, const std::string& name) {
  return process ? "user " + std::to_string(process->uid) : name.substr(0, name.rfind(':'));
}

std::string PeerName(int descriptor) {
  return PeerName(descriptor, FindPeerProcess(descriptor));
}

std::string PeerName(int descriptor, const std::optional<ucred>& process) {
  SocketAddress peer;
  if (!process && getpeername(descriptor, peer.Get(), &peer.size) != 0) return "?";
  return PeerName(peer, process);
}

std::string PeerName(const SocketAddress& address, const std::optional<ucred>& process) {
  if (process) return "user " + std::to_string(process->uid) + " process " + std::to_string(process->pid);
  return ToText(address.Get(), address.size);
}

}  // namespace tavix::daemon
