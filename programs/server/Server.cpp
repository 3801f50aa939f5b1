#include "programs/server/Server.h"

#include <fcntl.h>
#include <poll.h>
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

// Raises the soft limit as far as it is of use and the hard one lets it, and lowers the number of connections to what
// the process then has descriptors for.
Limits WithinDescriptors(Limits limits) {
  const rlim_t wanted = limits.connections + kReservedDescriptors;
  rlimit possible{};
  if (getrlimit(RLIMIT_NOFILE, &possible) != 0) return limits;
  if (possible.rlim_cur < wanted) {
    possible.rlim_cur = std::min(wanted, possible.rlim_max);
    setrlimit(RLIMIT_NOFILE, &possible);
  }
  const rlim_t descriptors = std::max(possible.rlim_cur, kReservedDescriptors + 1);
  limits.connections = static_cast<size_t>(std::min(wanted, descriptors) - kReservedDescriptors);
  return limits;
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

Server::Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote, size_t loops,
               const Limits& limits)
    : _limits(WithinDescriptors(limits)),
      _env{&store.GetManager(), &_serializationManager, limits.subscriptions},
      _listeners(OpenAll(addresses, allowRemote)),
      _spare(OpenSpare()) {
  while (_loops.size() < loops) _loops.push_back(std::make_unique<EventLoop>(&_env, _limits));
}

Server::~Server() {
  _loops.clear();
  if (_spare >= 0) close(_spare);
}

std::vector<std::string> Server::GetAddresses() const {
  std::vector<std::string> addresses;
  for (const Listener& listener : _listeners) addresses.push_back(listener.GetAddress());
  return addresses;
}

void Server::Run(const StopSignals& signals) {
  std::vector<pollfd> watched{{signals.GetDescriptor(), POLLIN, 0}};
  for (const Listener& listener : _listeners) watched.push_back({listener.GetDescriptor(), POLLIN, 0});
  while (true) {
    const bool pauses = std::exchange(_mustPause, false);
    if (poll(watched.data(), pauses ? 1 : watched.size(), pauses ? kPause : -1) < 0) continue;  // EINTR, or no memory
    if (watched[0].revents) break;
    for (size_t i = 0; i < _listeners.size() && !pauses; ++i) {
      if (watched[i + 1].revents) AcceptFrom(_listeners[i]);
    }
  }
  _listeners.clear();
  _loops.clear();
}

void Server::AcceptFrom(const Listener& listener) {
  const int descriptor = listener.Accept();
  if (descriptor < 0) {
    const bool isGone = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    if (!isGone && !RefuseOne(listener)) _mustPause = true;
    return;
  }
  if (CountConnections() >= _limits.connections) {
    close(descriptor);
    core::Logger::GetLogger("Server")->Warning("Connection refused: %zu are served already", _limits.connections);
    return;
  }
  FindLeastBusy().Add(descriptor);
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

EventLoop& Server::FindLeastBusy() const {
  const auto isLessBusy = [](const auto& a, const auto& b) { return a->CountConnections() < b->CountConnections(); };
  return **std::min_element(_loops.begin(), _loops.end(), isLessBusy);
}

size_t Server::CountConnections() const {
  size_t count = 0;
  for (const auto& loop : _loops) count += loop->CountConnections();
  return count;
}

}  // namespace tavix::daemon
