#include "programs/server/Server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "programs/server/SettingsSources.h"
#include "programs/server/StopSignals.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr rlim_t kReservedDescriptors = 32;  // standard streams, listeners and, above all, the files of a save
constexpr int kPause = 100;                  // milliseconds

// Raises the soft limit as far as it is of use and the hard one lets it.
size_t CountPossibleConnections() {
  constexpr rlim_t kWanted = Server::kMostConnections + kReservedDescriptors;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return Server::kMostConnections;
  if (limit.rlim_cur < kWanted) {
    limit.rlim_cur = std::min(kWanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  return static_cast<size_t>(std::clamp(limit.rlim_cur, kReservedDescriptors + 1, kWanted) - kReservedDescriptors);
}

int OpenSpare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

std::vector<Listener> OpenAll(const std::vector<std::string>& addresses, bool allowRemote) {
  std::vector<Listener> listeners;
  for (const std::string& address : addresses) {
    std::vector<Listener> opened = Listener::Open(address, allowRemote);
    std::move(opened.begin(), opened.end(), std::back_inserter(listeners));
  }
  return listeners;
}

}  // namespace

Server::Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote)
    : _env{&store.GetManager(), &_serializationManager},
      _listeners(OpenAll(addresses, allowRemote)),
      _wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _spare(OpenSpare()),
      _mostConnections(CountPossibleConnections()) {
  if (_wake < 0) throw osa::Exception("Failed to make an event descriptor: %s", std::strerror(errno));
}

Server::~Server() {
  EndAllConnections();
  close(_wake);
  if (_spare >= 0) close(_spare);
}

std::vector<std::string> Server::GetAddresses() const {
  std::vector<std::string> addresses;
  for (const Listener& listener : _listeners) addresses.push_back(listener.GetAddress());
  return addresses;
}

void Server::Run(const StopSignals& signals) {
  std::vector<pollfd> watched{{signals.GetDescriptor(), POLLIN, 0}, {_wake, POLLIN, 0}};
  for (const Listener& listener : _listeners) watched.push_back({listener.GetDescriptor(), POLLIN, 0});
  while (true) {
    const bool pauses = std::exchange(_mustPause, false);
    if (poll(watched.data(), pauses ? 2 : watched.size(), pauses ? kPause : -1) < 0) continue;  // EINTR, or no memory
    if (watched[0].revents) break;
    if (watched[1].revents) RemoveEndedConnections();
    for (size_t i = 0; i < _listeners.size() && !pauses; ++i) {
      if (watched[i + 2].revents) AcceptFrom(_listeners[i]);
    }
  }
  _listeners.clear();
  EndAllConnections();
}

void Server::AcceptFrom(const Listener& listener) {
  if (_connections.size() >= _mostConnections) RemoveEndedConnections();
  const int descriptor = listener.Accept();
  if (descriptor < 0) {
    const bool isGone = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    if (!isGone && !RefuseOne(listener)) _mustPause = true;
    return;
  }
  if (_connections.size() >= _mostConnections) {
    close(descriptor);
    core::Logger::GetLogger("Server")->Warning("Connection refused: %zu are served already", _mostConnections);
    return;
  }
  try {
    const int wake = _wake;
    _connections.push_back(std::make_unique<Connection>(descriptor, &_env, [wake] { eventfd_write(wake, 1); }));
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("Server")->Warning("Connection refused: %s", exception.what());
  }
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever. False
// when it could not be refused either.
bool Server::RefuseOne(const Listener& listener) {
  core::Logger::GetLogger("Server")->Warning("Connection refused: %s", std::strerror(errno));
  if (_spare >= 0) close(_spare);
  const int descriptor = listener.Accept();
  if (descriptor >= 0) close(descriptor);
  _spare = OpenSpare();
  return descriptor >= 0;
}

void Server::RemoveEndedConnections() {
  eventfd_t count = 0;
  eventfd_read(_wake, &count);
  _connections.remove_if([](const auto& connection) { return connection->HasEnded(); });
}

// All are told before the first is waited for.
void Server::EndAllConnections() {
  for (const auto& connection : _connections) connection->Shutdown();
  _connections.clear();
}

}  // namespace tavix::daemon
