#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "programs/server/Connection.h"
#include "programs/server/Counters.h"
#include "programs/server/Limits.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

// A thread that serves many connections, each when there is something to do for it.
class EventLoop : private osa::Runnable {
 public:
  // Starts the thread. gate: may be null. Everything that is passed outlives the loop.
  EventLoop(settings::server::ServerEnv* env, const Limits& limits, Counters& counters, DurabilityGate* gate);

  // Ends the thread and every connection.
  ~EventLoop() override;

  // Takes a connected descriptor over. From any thread.
  void Add(int descriptor);

  // How many connections there are, those on their way included.
  size_t CountConnections() const { return _count; }

 private:
  void Run() override;
  void TakeNewConnections();
  void HandleEvent(Connection* connection, unsigned int events, bool isAlone);
  bool ReadOn(Connection* connection);
  void GiveTurns();
  void Tick();
  void End(Connection* connection);
  void CountOneLess();

  settings::server::ServerEnv* const _env;
  const Limits& _limits;
  Counters& _counters;
  DurabilityGate* const _gate;
  const int _poll;
  const int _wake;
  std::unique_ptr<char[]> _scratch;
  std::map<Connection*, std::unique_ptr<Connection>> _connections;  // the loop's thread's
  std::set<Connection*> _busy;                // likewise: requests have come that are left for the next turn
  int _readsToLeaveOut = 0;                   // likewise: how many events to wait for before the next look without one
  bool _ticks = false;                        // likewise
  Connection::Clock::time_point _nextTick{};  // likewise
  std::atomic<size_t> _count{0};
  std::mutex _mutex;  // guards what follows
  std::vector<int> _new;
  bool _stop = false;
  osa::Thread _thread;
};

}  // namespace tavix::daemon
