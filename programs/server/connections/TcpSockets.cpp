#include "programs/server/connections/TcpSockets.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "programs/server/system/SocketName.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/ConnectEndpoint.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

[[noreturn]] void Fail(const std::string& address, const char* reason) {
  throw osa::Exception("Can't listen on '%s': %s", address.c_str(), reason);
}

// None, with errno set, when it can't be had.
osa::Descriptor OpenSocket(const addrinfo& address) {
  osa::Descriptor made(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) return made;
  const int on = 1;
  setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // IPv4 has a socket of its own, where the address asks for both.
  if (address.ai_family == AF_INET6) setsockopt(made.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  osa::SetUpConnection(made.Get());  // before the first connection, which is made with these options
  if (bind(made.Get(), address.ai_addr, address.ai_addrlen) == 0 && listen(made.Get(), kBacklog) == 0) return made;
  const int error = errno;
  made.Reset();
  errno = error;
  return made;
}

bool IsMissingHere(int error) {
  return error == EADDRNOTAVAIL || error == EAFNOSUPPORT || error == EPROTONOSUPPORT;
}

// A hosts file with two lines for one name gives an address twice.
bool CameBefore(const addrinfo* found, const addrinfo* one) {
  for (; found != one; found = found->ai_next) {
    if (found->ai_addrlen == one->ai_addrlen && std::memcmp(found->ai_addr, one->ai_addr, one->ai_addrlen) == 0)
      return true;
  }
  return false;
}

}  // namespace

AddressList Resolve(const ListenAddress& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
  if (error) Fail(address.text, gai_strerror(error));
  return AddressList(found, freeaddrinfo);
}

void RequireLocal(const sockaddr* found, const std::string& text, bool allowRemote) {
  if (!allowRemote && !IsLocal(found)) Fail(text, "it is not loopback, and --allow-remote was not given");
}

std::vector<osa::Descriptor> ListenOnAll(const addrinfo* found, const std::string& text) {
  std::vector<osa::Descriptor> sockets;
  std::vector<std::pair<const addrinfo*, int>> missing;
  for (const addrinfo* one = found; one; one = one->ai_next) {
    if (CameBefore(found, one)) continue;
    osa::Descriptor made = OpenSocket(*one);
    if (made) {
      sockets.push_back(std::move(made));
    } else if (IsMissingHere(errno)) {
      missing.emplace_back(one, errno);
    } else {
      Fail(text, std::strerror(errno));
    }
  }
  if (sockets.empty()) Fail(text, std::strerror(missing.front().second));
  for (const auto& [one, error] : missing)
    core::Logger::GetLogger("Listener")
        ->Warning("Not listening on '%s' of '%s': %s", ToText(one->ai_addr, one->ai_addrlen).c_str(), text.c_str(),
                  std::strerror(error));
  return sockets;
}

}  // namespace tavix::daemon
