#include "programs/server/Server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "programs/server/connections/LogPeer.h"
#include "programs/server/options/OptionValues.h"
#include "programs/server/store/SettingsStore.h"
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
constexpr int kAcceptsInARow = 64;
constexpr size_t kFirstListener = 3;  // of what is watched
constexpr std::chrono::milliseconds kMaxWaitForPlace{1000};
const std::string kAnybody = "all peers";  // for the log, before it is known who connects

// Raises the soft limit as far as it is of use and the hard one lets it, and lowers the number of connections to what
// the process then has descriptors for.
Limits WithinDescriptors(Limits limits, size_t loops) {
  const rlim_t reserved = kReservedDescriptors + kDescriptorsOfALoop * loops;
  const rlim_t needed = limits.connections + reserved;
  rlimit possible{};
  if (getrlimit(RLIMIT_NOFILE, &possible) != 0) return limits;
  if (possible.rlim_cur < needed) {
    possible.rlim_cur = std::min(needed, possible.rlim_max);
    setrlimit(RLIMIT_NOFILE, &possible);
  }
  const rlim_t descriptors = std::max(possible.rlim_cur, reserved + 1);
  limits.connections = static_cast<size_t>(std::min(needed, descriptors) - reserved);
  return limits;
}

// What a handler is given.
settings::server::ServerEnv EnvironmentOf(SettingsStore& store, settings::server::SerializationManager& serializations,
                                          const Limits& limits) {
  settings::server::ServerEnv env;
  env.settingsManager = &store.GetManager();
  env.serializationManager = &serializations;
  env.mostSubscriptions = limits.subscriptions;
  env.mostSubscriptionBytes = limits.subscriptionBytes;
  env.mostListed = limits.listed;
  env.mostPatterns = limits.patterns;
  env.maxNameBytes = limits.nameBytes;
  env.maxMatchingWork = limits.work;
  return env;
}

// The path as it is wherever somebody reads it.
KeptChanges KeptChangesOf(const Options& options) {
  std::error_code error;
  KeptChanges kept{options.userSettings, FormatDurability(options.durability)};
  if (!kept.path.empty()) kept.path = std::filesystem::absolute(options.userSettings, error).string();
  return kept;
}

// Run() sees SIGTERM, and then looks for the loop that failed.
void EndProcess() {
  kill(getpid(), SIGTERM);
}

// False when it was interrupted. A process that may have fewer descriptors than it watches waits for the first alone,
// and tries the others.
bool Wait(std::vector<pollfd>& watched, int timeout) {
  if (poll(watched.data(), watched.size(), timeout) >= 0) return true;
  if (errno == EINTR || poll(watched.data(), 1, kPause) < 0) return false;
  for (size_t i = 1; i < watched.size(); ++i) watched[i].revents = POLLIN;
  return true;
}

osa::Descriptor OpenSpare() {
  return osa::Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

Server::Server(SettingsStore& store, std::vector<Listener> listeners, const Options& options, Counters& counters)
    : _allowedUsers(options.allowedUsers),
      _counters(counters),
      _limits(WithinDescriptors(options.limits, options.loops)),
      _places(_limits.connections),
      _subscriptionBudget(_limits.allSubscriptionBytes),
      _info(counters, store.GetManager(), KeptChangesOf(options)),
      _env(EnvironmentOf(store, _serializationManager, _limits)),
      _bounds{SharedBound(_limits.allRequestBytes), SharedBound(_limits.allBacklogBytes)},
      _listeners(std::move(listeners)),
      _spare(OpenSpare()) {
  _env.subscriptionBudget = &_subscriptionBudget;
  _env.serverInfo = &_info;
  AddExtraWords(store);
  store.GetManager().SetMaxAlikePatterns(_limits.alikePatterns);
  store.GetManager().SetCallsInPieces(true);  // connections read the values that they announce
  Connection::Shared shared{&_env, _limits, _bounds, counters, store.GetGate()};
  shared.places = &_places;
  shared.lane = &_lane;
  while (_loops.size() < options.loops) _loops.push_back(std::make_unique<EventLoop>(shared, EndProcess));
}

void Server::AddExtraWords(SettingsStore& store) {
  if (const KeptHistory* history = store.GetHistory()) {
    _extraWords.Add(_historyWords.emplace(*history));
    _extraWords.Add(_checkpointWords.emplace(*store.GetCheckpoints(), *history, store.GetManager(), *store.GetGate()));
    _extraWords.Add(_rollbackWords.emplace(store.GetManager(), *history, *store.GetCheckpoints(), *store.GetGate(),
                                           _limits.storeBytes));
  }
  if (StoreTrials* trials = store.GetTrials()) _extraWords.Add(_trialWords.emplace(*trials));
  if (StoreTrials* trials = store.GetTimedTrials()) _timedReverts.emplace(*trials);
  if (!_extraWords.IsEmpty()) _env.extraCommands = &_extraWords;
}

Server::~Server() {
  EndLoops();
}

std::vector<std::string> Server::GetAddresses() const {
  std::vector<std::string> addresses;
  for (const Listener& listener : _listeners) addresses.push_back(listener.GetAddress());
  return addresses;
}

void Server::Run(const programs::Signals& signals,
                 const std::function<void(const programs::Signals::Signal&)>& onSignal) {
  for (programs::Signals::Signal signal; signal.number != SIGTERM && signal.number != SIGINT;) {
    std::vector<pollfd> watched = FindWatched(signals);
    const int timeout = FindTimeout();
    const bool pauses = std::exchange(_mustPause, false);
    if (!Wait(watched, timeout)) continue;
    signal = watched[0].revents ? signals.Take() : programs::Signals::Signal();
    if (signal.number != 0) onSignal(signal);
    if (watched[1].revents) _logLimiter.ReportDue(LogLimiter::Clock::now());
    if (watched[2].revents) _places.Acknowledge();
    if (!pauses) AcceptFromAll(watched);
  }
  _listeners.clear();
  const auto hasFailed = [](const auto& loop) { return loop->HasFailed(); };
  const bool failed = std::any_of(GetLoops().begin(), GetLoops().end(), hasFailed);
  EndLoops();
  if (failed) throw osa::Exception("An event loop failed");
}

void Server::Probe() {
  osa::PlainMutexLock lock(_probeMutex);
  for (const auto& loop : _loops) loop->Probe();
}

void Server::EndLoops() {
  _timedReverts.reset();
  _lane.Stop();
  osa::PlainMutexLock lock(_probeMutex);
  _loops.clear();
}

// Signals, the log's limiter, places, then the listeners. Connections that can't be taken now stay in the
// queues of listeners, which are then not watched.
std::vector<pollfd> Server::FindWatched(const programs::Signals& signals) const {
  std::vector<pollfd> watched{{signals.GetDescriptor(), POLLIN, 0},
                              {_logLimiter.GetDescriptor(), POLLIN, 0},
                              {_places.GetDescriptor(), POLLIN, 0}};
  const bool accepts = !_mustPause && _entry != Entry::kWaiting;
  for (const Listener& listener : _listeners) watched.push_back({accepts ? listener.GetDescriptor() : -1, POLLIN, 0});
  return watched;
}

// In milliseconds.
int Server::FindTimeout() const {
  if (_mustPause) return kPause;
  if (_entry != Entry::kWaiting) return -1;
  const auto left = _waitsSince + kMaxWaitForPlace - Clock::now();
  return std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
}

void Server::AcceptFromAll(const std::vector<pollfd>& watched) {
  const bool tries = _entry == Entry::kWaiting;
  for (size_t i = 0; i < _listeners.size(); ++i) {
    if (tries || watched[kFirstListener + i].revents) AcceptFrom(_listeners[i]);
  }
}

void Server::AcceptFrom(const Listener& listener) {
  for (int i = 0; i < kAcceptsInARow; ++i) {
    if (!_places.Take()) {
      if (i == 0) OnNoPlace(listener);  // else nobody may be waiting
      return;
    }
    _entry = Entry::kOpen;
    if (!AcceptOne(listener)) return;
  }
}

// With a place for it. Returns whether there may be another connection.
bool Server::AcceptOne(const Listener& listener) {
  osa::Descriptor descriptor(listener.Accept());
  if (!descriptor) {
    const int error = errno;
    _places.Free();
    const bool isGone = error == EAGAIN || error == EINTR || error == ECONNABORTED;
    if (!isGone && !RefuseOne(listener, error)) _mustPause = true;
    return isGone && error != EAGAIN;
  }
  if (!MayEnter(descriptor.Get(), listener)) {
    _places.Free();
    return true;
  }
  _counters.accepted.Add();
  FindLeastBusy().Add(std::move(descriptor));
  return true;
}

void Server::OnNoPlace(const Listener& listener) {
  const auto now = Clock::now();
  if (_entry == Entry::kOpen) {
    _entry = Entry::kWaiting;
    _waitsSince = now;
  } else if (_entry == Entry::kWaiting && now - _waitsSince >= kMaxWaitForPlace) {
    _entry = Entry::kRefusing;
  }
  if (_entry == Entry::kRefusing) RefuseQueue(listener);
}

void Server::RefuseQueue(const Listener& listener) const {
  for (int i = 0; i < kAcceptsInARow; ++i) {
    const osa::Descriptor descriptor(listener.Accept());
    if (!descriptor) return;
    const std::string name = PeerWithoutPort(descriptor.Get());
    const LogPeer peer(name);
    _counters.Count(Refusal::kTooMany);
    Log()->Warning("Connection refused: %zu are served already", _limits.connections);
  }
}

// The permissions of a unix socket's file have let the process in already.
bool Server::MayEnter(int descriptor, const Listener& listener) const {
  if (_allowedUsers.empty() || !listener.IsUnix()) return true;
  const std::optional<ucred> peer = FindPeerProcess(descriptor);
  if (peer && std::count(_allowedUsers.begin(), _allowedUsers.end(), peer->uid) > 0) return true;
  _counters.Count(Refusal::kUser);
  const std::string name = PeerWithoutPort(descriptor);
  const LogPeer logPeer(name);
  Log()->Warning("Connection refused: %s is not allowed", PeerName(descriptor).c_str());
  return false;
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever. False
// when it could not be refused either.
bool Server::RefuseOne(const Listener& listener, int error) {
  const LogPeer peer(kAnybody);
  Log()->Warning("Connection refused: %s", std::strerror(error));
  _counters.Count(Refusal::kDescriptors);
  _spare.Reset();
  osa::Descriptor refused(listener.Accept());
  const bool isRefused = static_cast<bool>(refused);
  refused.Reset();
  _spare = OpenSpare();
  return isRefused;
}

EventLoop& Server::FindLeastBusy() const {
  const auto isLessBusy = [](const auto& a, const auto& b) { return a->CountConnections() < b->CountConnections(); };
  return **std::min_element(GetLoops().begin(), GetLoops().end(), isLessBusy);
}

}  // namespace tavix::daemon
