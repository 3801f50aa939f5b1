#include "programs/server/Server.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "programs/server/SettingsSources.h"
#include "programs/server/StopSignals.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

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

Server::Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote, unsigned int loops,
               const Limits& limits)
    : _limits(limits),
      _env{&store.GetManager(), &_serializationManager},
      _listeners(OpenAll(addresses, allowRemote)),
      _spare(OpenSpare()) {
  for (unsigned int i = 0; i < loops; ++i) _loops.push_back(std::make_unique<EventLoop>(&_env, _limits));
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
    if (poll(watched.data(), watched.size(), -1) < 0) continue;  // EINTR, or no memory for a moment
    if (watched[0].revents) break;
    for (size_t i = 0; i < _listeners.size(); ++i) {
      if (watched[i + 1].revents) AcceptFrom(_listeners[i]);
    }
  }
  _listeners.clear();
  _loops.clear();
}

void Server::AcceptFrom(const Listener& listener) {
  const int descriptor = listener.Accept();
  if (descriptor < 0) {
    if (errno == EMFILE || errno == ENFILE) RefuseOne(listener);
    return;
  }
  if (CountConnections() >= _limits.connections) {
    close(descriptor);
    core::Logger::GetLogger("Server")->Warning("Connection refused: %zu are served already", _limits.connections);
    return;
  }
  FindLeastBusy().Add(descriptor);
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever.
void Server::RefuseOne(const Listener& listener) {
  core::Logger::GetLogger("Server")->Warning("Connection refused: %s", std::strerror(errno));
  if (_spare >= 0) close(_spare);
  const int descriptor = listener.Accept();
  if (descriptor >= 0) close(descriptor);
  _spare = OpenSpare();
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
