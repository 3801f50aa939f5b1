#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "programs/server/system/SocketName.h"
#include "tavix/settings/server/ClientIdentity.h"

namespace tavix::daemon {

// The far end of a connected socket as the kernel saw it when it connected. Asked for once, by the constructor; a plain
// value from then on. What is not known is left out: over TCP nobody is.
struct Peer {
  explicit Peer(int descriptor);

  // The same, for a caller that knows the far end's address.
  Peer(int descriptor, const SocketAddress& address);

  settings::server::ClientIdentity identity;
  std::vector<gid_t> groups;  // the user's others, ascending
  std::string name;           // for log lines, as PeerName
  std::string lasting;        // likewise, as PeerWithoutPort

 private:
  void SetProcess(int descriptor, const std::optional<ucred>& process);
};

}  // namespace tavix::daemon
