#include "programs/web/http/Peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace tavix::web {

namespace {

constexpr char kMapped[] = "::ffff:";

std::string WithoutMapping(const std::string& address) {
  const bool isMapped = address.compare(0, sizeof kMapped - 1, kMapped) == 0;
  return isMapped && address.find('.') != std::string::npos ? address.substr(sizeof kMapped - 1) : address;
}

bool IsLoopback(const std::string& address) {
  return address == "::1" || address.compare(0, 4, "127.") == 0;
}

std::string AddressOf(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET)
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
  if (address.ss_family == AF_INET6)
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text, sizeof text);
  return WithoutMapping(text);
}

}  // namespace

std::optional<Peer> FindPeer(int socket) {
  Peer peer;
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return std::nullopt;
  peer.isUnix = address.ss_family == AF_UNIX;
  if (peer.isUnix) {
    ucred credentials{};
    socklen_t credentialsSize = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &credentialsSize) == 0) peer.user = credentials.uid;
    return peer;
  }
  peer.address = AddressOf(address);
  peer.isLoopback = IsLoopback(peer.address);
  return peer;
}

std::optional<std::string> NormalizeAddress(const std::string& text) {
  char bytes[sizeof(in6_addr)];
  char spelled[INET6_ADDRSTRLEN] = "";
  for (const int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), bytes) != 1) continue;
    inet_ntop(family, bytes, spelled, sizeof spelled);
    return WithoutMapping(spelled);
  }
  return std::nullopt;
}

}  // namespace tavix::web
