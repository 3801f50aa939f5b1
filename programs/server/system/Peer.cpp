#include "programs/server/system/Peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>

namespace tavix::daemon {

namespace {

using Connection = settings::server::ClientIdentity::Connection;

// Empty where the kernel does not tell, as before Linux 4.13.
std::vector<gid_t> FindGroups(int descriptor) {
#ifdef SO_PEERGROUPS
  std::vector<gid_t> groups(32);
  for (int tries = 0; tries < 2; ++tries) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const bool isRead = getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0;
    if (!isRead && errno != ERANGE) break;
    groups.resize(size / sizeof(gid_t));
    if (!isRead) continue;
    std::sort(groups.begin(), groups.end());
    groups.shrink_to_fit();
    return groups;
  }
#else
  static_cast<void>(descriptor);
#endif
  return {};
}

}  // namespace

Peer::Peer(int descriptor) {
  const std::optional<ucred> process = FindPeerProcess(descriptor);
  name = PeerName(descriptor, process);
  SetProcess(descriptor, process);
}

Peer::Peer(int descriptor, const SocketAddress& address) {
  const std::optional<ucred> process = FindPeerProcess(descriptor, address);
  name = PeerName(address, process);
  SetProcess(descriptor, process);
}

void Peer::SetProcess(int descriptor, const std::optional<ucred>& process) {
  lasting = PeerWithoutPort(process, name);
  identity.connection = process ? Connection::kUnix : Connection::kTcp;
  if (!process) return;
  identity.user = process->uid;
  identity.group = process->gid;
  identity.process = process->pid;
  groups = FindGroups(descriptor);
}

}  // namespace tavix::daemon
