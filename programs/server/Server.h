#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programs/common/Signals.h"
#include "programs/server/TimedReverts.h"
#include "programs/server/connections/Connection.h"
#include "programs/server/connections/EventLoop.h"
#include "programs/server/connections/Listener.h"
#include "programs/server/connections/LogLimiter.h"
#include "programs/server/connections/Places.h"
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
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SubscriptionBudget.h"

namespace tavix::daemon {

class SettingsStore;

// Accepts connections and hands them to a few event loops in turn.
//
// Threads: one thread constructs, runs and destroys it.
// Members: many, as it owns what all connections share: bounds, counters, places, the lane, the loops.
class Server {
 public:
  // Connections queue at the listeners until Run. store and counters outlive the server.
  Server(SettingsStore& store, std::vector<Listener> listeners, const Options& options, Counters& counters);

  // Ends every connection.
  ~Server();

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Every address as bound, HOST:PORT or unix:PATH.
  std::vector<std::string> GetAddresses() const;

  // Serves until SIGTERM or SIGINT comes, then ends every connection. onSignal: called with each signal. Throws
  // osa::Exception when it ended because an event loop failed.
  void Run(const programs::Signals& signals, const std::function<void(const programs::Signals::Signal&)>& onSignal);

  // Returns once every event loop has come round. From any thread.
  void Probe() TAVIX_EXCLUDES(_probeMutex);

 private:
  using Clock = std::chrono::steady_clock;

  // A connection that finds no place waits for one: peers that come and reset at once have places until their loops
  // have seen it. When none was freed for long, connections are refused until there is one again.
  enum class Entry {
    kOpen,      // there are places, as far as is known
    kWaiting,   // connections wait in the listeners' queues
    kRefusing,  // they are refused
  };

  void AddExtraWords(SettingsStore& store);
  std::vector<pollfd> FindWatched(const programs::Signals& signals) const;
  int FindTimeout() const;
  void AcceptFromAll(const std::vector<pollfd>& watched);
  void AcceptFrom(const Listener& listener);
  bool AcceptOne(const Listener& listener);
  void OnNoPlace(const Listener& listener);
  void RefuseQueue(const Listener& listener) const;
  bool MayEnter(int descriptor, const Listener& listener) const;
  bool RefuseOne(const Listener& listener, int error);
  EventLoop& FindLeastBusy() const;
  void EndLoops() TAVIX_EXCLUDES(_probeMutex);

  // On the one thread that changes them, so that it reads them without the mutex.
  const std::vector<std::unique_ptr<EventLoop>>& GetLoops() const TAVIX_NO_THREAD_SAFETY_ANALYSIS { return _loops; }

  const std::vector<uid_t> _allowedUsers;  // on unix sockets; empty: all
  Counters& _counters;
  LogLimiter _logLimiter;
  const Limits _limits;  // with as many connections as there are descriptors for
  Places _places;
  settings::server::SerializationManager _serializationManager;
  settings::server::SubscriptionBudget _subscriptionBudget;
  const ServerInfo _info;
  settings::server::ServerEnv _env;
  std::optional<HistoryWords> _historyWords;  // empty: history is off, as for the next two
  std::optional<CheckpointWords> _checkpointWords;
  std::optional<RollbackWords> _rollbackWords;
  ExtraWords _extraWords;
  SharedBounds _bounds;
  std::vector<Listener> _listeners;
  osa::Descriptor _spare;   // given up for a moment when descriptors run out, so that the queue can be emptied
  bool _mustPause = false;  // a connection is waiting that can be neither taken nor refused
  Entry _entry = Entry::kOpen;
  Clock::time_point _waitsSince{};  // for a place
  SlowLane _lane;
  std::optional<TrialWords> _trialWords;      // empty: nothing is put on trial
  std::optional<TimedReverts> _timedReverts;  // empty: nor is anything on trial
  osa::PlainMutex _probeMutex;                // held while loops are probed, and while they end
  std::vector<std::unique_ptr<EventLoop>> _loops TAVIX_GUARDED_BY(_probeMutex);
};

}  // namespace tavix::daemon
