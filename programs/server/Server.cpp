#include "programs/server/Server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <utility>

#include "programs/server/SettingsSources.h"
#include "programs/server/system/Signals.h"
#include "programs/server/system/SocketName.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Server");
  return logger;
}

constexpr rlim_t kReservedDescriptors = 32;  // standard streams, listeners and, above all, the files of a save
constexpr rlim_t kDescriptorsOfALoop = 2;
constexpr int kPause = 100;  // milliseconds

// Raises the soft limit as far as it is of use and the hard one lets it, and lowers the number of connections to what
// the process then has descriptors for.
Limits WithinDescriptors(Limits limits, size_t loops) {
  const rlim_t reserved = kReservedDescriptors + kDescriptorsOfALoop * loops;
  const rlim_t wanted = limits.connections + reserved;
  rlimit possible{};
  if (getrlimit(RLIMIT_NOFILE, &possible) != 0) return limits;
  if (possible.rlim_cur < wanted) {
    possible.rlim_cur = std::min(wanted, possible.rlim_max);
    setrlimit(RLIMIT_NOFILE, &possible);
  }
  const rlim_t descriptors = std::max(possible.rlim_cur, reserved + 1);
  limits.connections = static_cast<size_t>(std::min(wanted, descriptors) - reserved);
  return limits;
}

// What a handler is given.
settings::server::ServerEnv EnvironmentOf(SettingsStore& store, settings::server::SerializationManager& serializations,
                                          const Limits& limits, settings::server::IMessageObserver& observer) {
  settings::server::ServerEnv env;
  env.settingsManager = &store.GetManager();
  env.serializationManager = &serializations;
  env.mostSubscriptions = limits.subscriptions;
  env.mostSubscriptionBytes = limits.subscriptionBytes;
  env.mostListed = limits.listed;
  env.mostPatterns = limits.patterns;
  env.messageObserver = &observer;
  return env;
}

// Whoever has signals sent to it looks for the reason.
void EndProcess() {
  kill(getpid(), SIGTERM);
}

int OpenSpare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

Server::Server(SettingsStore& store, std::vector<Listener> listeners, const Options& options, Counters& counters)
    : _allowedUsers(options.allowedUsers),
      _counters(counters),
      _limits(WithinDescriptors(options.limits, options.loops)),
      _messageHolder(store.GetGate()),
      _env(EnvironmentOf(store, _serializationManager, _limits, _messageHolder)),
      _bounds{SharedBound(_limits.allRequestBytes), SharedBound(_limits.allBacklogBytes)},
      _listeners(std::move(listeners)),
      _spare(OpenSpare()) {
  const Connection::Shared shared{&_env, _limits, _bounds, counters, store.GetGate()};
  while (_loops.size() < options.loops) _loops.push_back(std::make_unique<EventLoop>(shared, EndProcess));
}

Server::~Server() {
  EndLoops();
  if (_spare >= 0) close(_spare);
}

std::vector<std::string> Server::GetAddresses() const {
  std::vector<std::string> addresses;
  for (const Listener& listener : _listeners) addresses.push_back(listener.GetAddress());
  return addresses;
}

void Server::Run(const Signals& signals, const std::function<void(int)>& onSignal) {
  std::vector<pollfd> watched{{signals.GetDescriptor(), POLLIN, 0}};
  for (const Listener& listener : _listeners) watched.push_back({listener.GetDescriptor(), POLLIN, 0});
  for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
    const bool pauses = std::exchange(_mustPause, false);
    if (poll(watched.data(), pauses ? 1 : watched.size(), pauses ? kPause : -1) < 0) continue;  // EINTR, or no memory
    signal = watched[0].revents ? signals.Take() : 0;
    if (signal != 0) onSignal(signal);
    if (!pauses) AcceptFromAll(watched);
  }
  _listeners.clear();
  const auto hasFailed = [](const auto& loop) { return loop->HasFailed(); };
  const bool failed = std::any_of(_loops.begin(), _loops.end(), hasFailed);
  EndLoops();
  if (failed) throw osa::Exception("An event loop failed");
}

void Server::Probe() {
  std::lock_guard<std::mutex> lock(_probeMutex);
  for (const auto& loop : _loops) loop->Probe();
}

void Server::EndLoops() {
  std::lock_guard<std::mutex> lock(_probeMutex);
  _loops.clear();
}

void Server::AcceptFromAll(const std::vector<pollfd>& watched) {
  for (size_t i = 0; i < _listeners.size(); ++i) {
    if (watched[i + 1].revents) AcceptFrom(_listeners[i]);
  }
}

void Server::AcceptFrom(const Listener& listener) {
  Descriptor descriptor(listener.Accept());
  if (!descriptor) {
    const bool isGone = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    if (!isGone && !RefuseOne(listener)) _mustPause = true;
    return;
  }
  if (CountConnections() >= _limits.connections) {
    _counters.Count(Refusal::kTooMany);
    Log()->Warning("Connection refused: %zu are served already", _limits.connections);
    return;
  }
  if (!MayEnter(descriptor.Get(), listener)) return;
  _counters.accepted.Add();
  FindLeastBusy().Add(std::move(descriptor));
}

// The permissions of a unix socket's file have let the process in already.
bool Server::MayEnter(int descriptor, const Listener& listener) const {
  if (_allowedUsers.empty() || !listener.IsUnix()) return true;
  const std::optional<ucred> peer = FindPeerProcess(descriptor);
  if (peer && std::count(_allowedUsers.begin(), _allowedUsers.end(), peer->uid) > 0) return true;
  _counters.Count(Refusal::kUser);
  Log()->Warning("Connection refused: %s is not allowed", PeerName(descriptor).c_str());
  return false;
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever. False
// when it could not be refused either.
bool Server::RefuseOne(const Listener& listener) {
  Log()->Warning("Connection refused: %s", std::strerror(errno));
  _counters.Count(Refusal::kDescriptors);
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
