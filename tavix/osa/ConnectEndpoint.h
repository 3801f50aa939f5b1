#pragma once

#include <string>

namespace tavix::osa {

class Deadline;
struct ServiceEndpoint;

// How an attempt to connect ended.
struct ConnectResult {
  int descriptor = -1;      // blocking, closed on exec; the caller's to close. -1 after a failure
  int error = 0;            // of errno; 0 when the host was not found
  std::string reason = {};  // of a failure
};

// Connects a socket to an endpoint, and tries each of its addresses in the time given. A TCP connection sends small
// messages at once and finds a dead peer within two minutes. To find the address of a host's name takes as long as the
// system's resolver takes.
ConnectResult ConnectEndpoint(const ServiceEndpoint& endpoint, const Deadline& deadline);

// Sets up a TCP connection as ConnectEndpoint does. Harmless for other sockets.
void SetUpConnection(int descriptor);

}  // namespace tavix::osa
