#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "programs/server/options/ListenAddress.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

constexpr int kBacklog = 1024;  // clients that may wait at a listener of any kind

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Each of these throws osa::Exception that names the address as it was given, and the reason. From any thread.

// The addresses of HOST:PORT, one at least.
AddressList Resolve(const ListenAddress& address);

// Refuses what is not loopback, unless that is allowed. text: the address as it was given.
void RequireLocal(const sockaddr* found, const std::string& text, bool allowRemote);

// A listening socket for each of the addresses, closed on exec and non-blocking, and reusable at once after a restart.
//
// A name may have addresses that this system has not, such as that of version 6 where it is switched off: these are
// warned of as long as one is left. An address that somebody else has is an error: clients would meet a stranger there.
std::vector<osa::Descriptor> ListenOnAll(const addrinfo* found, const std::string& text);

}  // namespace tavix::daemon
