#pragma once

#include <string>

#include "tavix/osa/Export.h"

struct addrinfo;

namespace tavix::osa {

class Deadline;
struct ServiceEndpoint;

// How an attempt to connect ended. A plain value.
struct ConnectResult {
  int descriptor = -1;      // blocking, closed on exec; the caller's to close. -1 after a failure
  int error = 0;            // of errno, ETIMEDOUT when the time was up; 0 when the host was not found
  std::string reason = {};  // of a failure
};

// Connects a socket to an endpoint. A TCP connection sends small messages at once and finds a dead peer within two
// minutes. To find the addresses of a host's name takes as long as the system's resolver takes.
TAVIX_DAEMON_EXPORT ConnectResult ConnectEndpoint(const ServiceEndpoint& endpoint, const Deadline& deadline);

// Connects to the first of a host's addresses that answers, each tried once. The time that is left is shared by those
// that were not tried yet: when the share of an address is over, or it fails, the next one is tried, too, and those
// before it may still answer until the deadline. Without a limit each has as long as the system gives it. The failure
// is that of the last address.
ConnectResult ConnectAddresses(const addrinfo* addresses, const Deadline& deadline);

// Whether a failure is this system's: it has no descriptor or memory left for a connection. Not EADDRNOTAVAIL:
// that may be an address of a family that this system has no address of.
bool IsShortage(int error);

// Sets up a TCP connection as ConnectEndpoint does. A listening socket hands it down to the connections that it
// accepts. Harmless for other sockets.
TAVIX_DAEMON_EXPORT void SetUpConnection(int descriptor);

}  // namespace tavix::osa
