#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

namespace tavix::daemon {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;

  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// An address for people: HOST:PORT, [V6]:PORT or unix:PATH.
std::string ToText(const sockaddr* address, socklen_t size);

// Whether only this machine reaches the address.
bool IsLocal(const sockaddr* address);

// The far end of a connected socket, for log lines: its address, or user and process of a unix socket.
std::string PeerName(int descriptor);

// The same, for a caller that knows the process already.
std::string PeerName(int descriptor, const std::optional<ucred>& process);

// The same, for a caller that knows the address as well, or the process.
std::string PeerName(const SocketAddress& address, const std::optional<ucred>& process);

// The far end without what changes when it connects again: its address without the port, or the user of a unix socket.
std::string PeerWithoutPort(int descriptor);
std::string PeerWithoutPort(const std::optional<ucred>& process, const std::string& name);

// Who connected, as the kernel saw it then. None when the socket is no unix socket.
std::optional<ucred> FindPeerProcess(int descriptor);

// The same, for a caller that knows the far end's address.
std::optional<ucred> FindPeerProcess(int descriptor, const SocketAddress& address);

}  // namespace tavix::daemon
