#include "programs/server/Server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

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

Server::Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote)
    : _env{&store.GetManager(), &_serializationManager},
      _listeners(OpenAll(addresses, allowRemote)),
      _wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _spare(OpenSpare()) {
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
    if (poll(watched.data(), watched.size(), -1) < 0) continue;  // EINTR, or no memory for a moment
    if (watched[0].revents) break;
    if (watched[1].revents) RemoveEndedConnections();
    for (size_t i = 0; i < _listeners.size(); ++i) {
      if (watched[i + 2].revents) AcceptFrom(_listeners[i]);
    }
  }
  _listeners.clear();
  EndAllConnections();
}

void Server::AcceptFrom(const Listener& listener) {
  if (_connections.size() >= kMostConnections) RemoveEndedConnections();
  const int descriptor = listener.Accept();
  if (descriptor < 0) {
    if (errno == EMFILE || errno == ENFILE) RefuseOne(listener);
    return;
  }
  if (_connections.size() >= kMostConnections) {
    close(descriptor);
    core::Logger::GetLogger("Server")->Warning("Connection refused: %zu are served already", kMostConnections);
    return;
  }
  try {
    const int wake = _wake;
    _connections.push_back(std::make_unique<Connection>(descriptor, &_env, [wake] { eventfd_write(wake, 1); }));
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("Server")->Warning("Connection refused: %s", exception.what());
  }
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever.
void Server::RefuseOne(const Listener& listener) {
  core::Logger::GetLogger("Server")->Warning("Connection refused: %s", std::strerror(errno));
  if (_spare >= 0) close(_spare);
  const int descriptor = listener.Accept();
  if (descriptor >= 0) close(descriptor);
  _spare = OpenSpare();
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
