#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programs/common/Signals.h"
#include "programs/server/TimedReverts.h"
#include "programs/server/connections/Acceptor.h"
#include "programs/server/connections/Connection.h"
#include "programs/server/connections/EventLoop.h"
#include "programs/server/connections/Listener.h"
#include "programs/server/connections/LogLimiter.h"
#include "programs/server/connections/SharedBound.h"
#include "programs/server/history/CheckpointWords.h"
#include "programs/server/history/ExtraWords.h"
#include "programs/server/history/HistoryWords.h"
#include "programs/server/history/RollbackWords.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/metrics/ServerInfo.h"
#include "programs/server/options/Limits.h"
#include "programs/server/options/Options.h"
#include "programs/server/store/TrialWords.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SubscriptionBudget.h"

namespace tavix::daemon {

class SettingsStore;

// Serves connections by a few event loops, until a signal comes.
//
// Threads: one thread constructs, runs and destroys it.
// Members: many, as it owns what all connections share: bounds, the acceptor, the lane, the loops.
class Server {
 public:
  // Connections queue at the listeners until Run. store and counters outlive the server. MakeRoomForConnections has
  // seen the options.
  Server(SettingsStore& store, std::vector<Listener> listeners, const Options& options, Counters& counters);

  // Ends every connection.
  ~Server();

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Every address as bound, HOST:PORT or unix:PATH.
  std::vector<std::string> GetAddresses() const { return _acceptor.GetAddresses(); }

  // Serves until SIGTERM or SIGINT comes, then ends every connection. onSignal: called with each signal. Throws
  // osa::Exception when it ended because an event loop failed.
  void Run(const programs::Signals& signals, const std::function<void(const programs::Signals::Signal&)>& onSignal);

  // Returns once every event loop has come round, or waits for a sync of the disk. From any thread.
  void Probe() TAVIX_EXCLUDES(_probeMutex);

 private:
  void AddExtraWords(SettingsStore& store);
  void EndLoops() TAVIX_EXCLUDES(_probeMutex);

  // On the one thread that changes them, so that it reads them without the mutex.
  const std::vector<std::unique_ptr<EventLoop>>& GetLoops() const TAVIX_NO_THREAD_SAFETY_ANALYSIS { return _loops; }

  LogLimiter _logLimiter;
  const Limits _limits;
  Acceptor _acceptor;
  settings::server::SerializationManager _serializationManager;
  settings::server::SubscriptionBudget _subscriptionBudget;
  const ServerInfo _info;
  settings::server::ServerEnv _env;
  std::optional<HistoryWords> _historyWords;  // empty: history is off, as for the next two
  std::optional<CheckpointWords> _checkpointWords;
  std::optional<RollbackWords> _rollbackWords;
  ExtraWords _extraWords;
  SharedBounds _bounds;
  SlowLane _lane;
  std::optional<TrialWords> _trialWords;      // empty: nothing is put on trial
  std::optional<TimedReverts> _timedReverts;  // empty: nor is anything on trial
  osa::PlainMutex _probeMutex;                // held while loops are probed, and while they end
  std::vector<std::unique_ptr<EventLoop>> _loops TAVIX_GUARDED_BY(_probeMutex);
};

}  // namespace tavix::daemon
