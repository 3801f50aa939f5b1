#include "programs/server/Server.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

#include "programs/server/options/OptionValues.h"
#include "programs/server/store/SettingsStore.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr int kPause = 100;  // milliseconds

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

}  // namespace

Server::Server(SettingsStore& store, std::vector<Listener> listeners, const Options& options, Counters& counters)
    : _limits(options.limits),
      _acceptor(std::move(listeners), options.allowedUsers, _limits.connections, counters),
      _subscriptionBudget(_limits.allSubscriptionBytes),
      _info(counters, store.GetManager(), KeptChangesOf(options)),
      _env(EnvironmentOf(store, _serializationManager, _limits)),
      _bounds{SharedBound(_limits.allRequestBytes), SharedBound(_limits.allBacklogBytes)} {
  _env.subscriptionBudget = &_subscriptionBudget;
  _env.serverInfo = &_info;
  AddExtraWords(store);
  store.GetManager().SetMaxAlikePatterns(_limits.alikePatterns);
  store.GetManager().SetCallsInPieces(true);  // connections read the values that they announce
  Connection::Shared shared{&_env, _limits, _bounds, counters, store.GetGate()};
  shared.places = &_acceptor.GetPlaces();
  shared.lane = &_lane;
  shared.hasOtherLoops = options.loops > 1;
  while (_loops.size() < options.loops) _loops.push_back(std::make_unique<EventLoop>(shared, EndProcess));
  std::vector<EventLoop*> loops;
  for (const auto& loop : _loops) loops.push_back(loop.get());
  _acceptor.SetLoops(std::move(loops));
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

void Server::Run(const programs::Signals& signals,
                 const std::function<void(const programs::Signals::Signal&)>& onSignal) {
  std::vector<pollfd> watched;  // rounds but the first ask for no memory
  for (programs::Signals::Signal signal; signal.number != SIGTERM && signal.number != SIGINT;) {
    watched.assign({{signals.GetDescriptor(), POLLIN, 0}, {_logLimiter.GetDescriptor(), POLLIN, 0}});
    const int timeout = _acceptor.Watch(watched);
    if (!Wait(watched, timeout)) continue;
    signal = watched[0].revents ? signals.Take() : programs::Signals::Signal();
    if (signal.number != 0) onSignal(signal);
    if (watched[1].revents) _logLimiter.ReportDue(LogLimiter::Clock::now());
    _acceptor.Serve(&watched[2]);
  }
  _acceptor.Close();
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
  _acceptor.Close();
  _timedReverts.reset();
  _lane.Stop();
  osa::PlainMutexLock lock(_probeMutex);
  for (const auto& loop : _loops) loop->Probe();  // one may still be giving a connection to another one
  _loops.clear();
}

}  // namespace tavix::daemon
