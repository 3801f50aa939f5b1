#include "programs/server/connections/Listener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "programs/common/PassedSockets.h"
#include "programs/server/connections/TcpSockets.h"
#include "programs/server/connections/UnixSocketFile.h"
#include "tavix/osa/ConnectEndpoint.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr char kUsualAddress[] = "127.0.0.1:7211";

[[noreturn]] void Fail(const std::string& address, const char* reason) {
  throw osa::Exception("Can't listen on '%s': %s", address.c_str(), reason);
}

std::vector<ListenAddress> AddressesOf(const Options& options) {
  return options.listen.empty() ? std::vector<ListenAddress>{ParseListenAddress(kUsualAddress)} : options.listen;
}

AddressList ResolveAllowed(const ListenAddress& address, bool allowRemote) {
  AddressList addresses = Resolve(address);
  for (const addrinfo* one = addresses.get(); one; one = one->ai_next)
    RequireLocal(one->ai_addr, address.text, allowRemote);
  return addresses;
}

void RequirePossible(const ListenAddress& address, const Options& options) {
  if (address.path.empty()) {
    ResolveAllowed(address, options.allowRemote);
    return;
  }
  try {
    UnixSocketFile::RequireGroup(options.unixGroup);
  } catch (const osa::Exception& exception) {
    Fail(address.text, exception.what());
  }
}

SocketAddress AddressOf(int descriptor) {
  SocketAddress bound;
  if (getsockname(descriptor, bound.Get(), &bound.size) != 0) bound.size = 0;
  return bound;
}

bool IsListeningStream(int descriptor) {
  int type = 0;
  int listens = 0;
  socklen_t size = sizeof type;
  return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM &&
         getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens;
}

}  // namespace

std::vector<Listener> Listener::OpenAll(const Options& options) {
  std::vector<Listener> listeners;
  // Where a service manager listens already, the daemon may not be able to: the options' addresses don't count then.
  std::vector<osa::Descriptor> passed = programs::TakePassedSockets();
  if (!passed.empty()) {
    TakePassed(std::move(passed), options.allowRemote, listeners);
    return listeners;
  }
  for (const ListenAddress& address : AddressesOf(options)) {
    if (address.path.empty()) {
      OpenTcp(address, options.allowRemote, listeners);
    } else {
      OpenUnix(address, options, listeners);
    }
  }
  return listeners;
}

std::vector<std::string> Listener::FindProblems(const Options& options) {
  std::vector<std::string> problems;
  for (const ListenAddress& address : AddressesOf(options)) {
    try {
      RequirePossible(address, options);
    } catch (const osa::Exception& exception) {
      problems.emplace_back(exception.what());
    }
  }
  return problems;
}

// A name may have several addresses: there is a listener for each.
void Listener::OpenTcp(const ListenAddress& address, bool allowRemote, std::vector<Listener>& listeners) {
  const AddressList addresses = ResolveAllowed(address, allowRemote);
  for (osa::Descriptor& descriptor : ListenOnAll(addresses.get(), address.text))
    listeners.push_back(Listener(std::move(descriptor), nullptr));
}

void Listener::OpenUnix(const ListenAddress& address, const Options& options, std::vector<Listener>& listeners) {
  try {
    auto file = std::make_unique<UnixSocketFile>(address.path);
    osa::Descriptor descriptor = file->Bind(options.unixMode, options.unixGroup);
    if (listen(descriptor.Get(), kBacklog) != 0) throw osa::Exception("%s", std::strerror(errno));
    listeners.push_back(Listener(std::move(descriptor), std::move(file)));
  } catch (const osa::Exception& exception) {
    Fail(address.text, exception.what());
  }
}

void Listener::TakePassed(std::vector<osa::Descriptor> passed, bool allowRemote, std::vector<Listener>& listeners) {
  for (osa::Descriptor& descriptor : passed) {
    const SocketAddress bound = AddressOf(descriptor.Get());
    if (!IsListeningStream(descriptor.Get()))
      throw osa::Exception("Descriptor %d, which the service manager passed, is no listening stream socket",
                           descriptor.Get());
    RequireLocal(bound.Get(), ToText(bound.Get(), bound.size), allowRemote);
    // A client that has left again by the time it is accepted must not make the accepting thread wait for another one.
    const int flags = fcntl(descriptor.Get(), F_GETFL);
    if (flags >= 0) fcntl(descriptor.Get(), F_SETFL, flags | O_NONBLOCK);
    osa::SetUpConnection(descriptor.Get());
    listeners.push_back(Listener(std::move(descriptor), nullptr));
    listeners.back()._hasOlder = true;
  }
}

Listener::Listener(osa::Descriptor descriptor, std::unique_ptr<UnixSocketFile> file)
    : _file(std::move(file)), _descriptor(std::move(descriptor)) {
  const SocketAddress bound = AddressOf(_descriptor.Get());
  _isUnix = bound.Get()->sa_family == AF_UNIX;
  _address = ToText(bound.Get(), bound.size);
}

Listener::Listener(Listener&&) noexcept = default;

Listener::~Listener() = default;

int Listener::Accept(SocketAddress& peer) const {
  const int accepted = accept4(_descriptor.Get(), peer.Get(), &peer.size, SOCK_CLOEXEC);
  if (accepted >= 0 && _hasOlder) {
    osa::SetUpConnection(accepted);
    _hasOlder = DoesAnybodyWait();
  }
  return accepted;
}

bool Listener::DoesAnybodyWait() const {
  pollfd waits{_descriptor.Get(), POLLIN, 0};
  return poll(&waits, 1, 0) > 0;
}

}  // namespace tavix::daemon
