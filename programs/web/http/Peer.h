#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace tavix::web {

// Who is at the other end of a connection, as the kernel knows it. A plain value.
struct Peer {
  std::string address;  // of IP, without the port; empty on a unix socket
  bool isLoopback = false;
  bool isUnix = false;
  std::optional<uid_t> user;  // on a unix socket
};

// Of a connected socket; nothing when the other end is gone.
std::optional<Peer> FindPeer(int socket);

// The address as FindPeer spells it: an address of IPv4 in IPv6's clothes is one of IPv4. Nothing when it is none.
std::optional<std::string> NormalizeAddress(const std::string& text);

}  // namespace tavix::web
