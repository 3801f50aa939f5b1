#pragma once

#include <memory>
#include <string>
#include <vector>

#include "programs/server/EventLoop.h"
#include "programs/server/Limits.h"
#include "programs/server/Listener.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

class SettingsStore;
class StopSignals;

// Accepts connections and hands them to a few event loops in turn.
//
// Threads: one thread constructs, runs and destroys it.
class Server {
 public:
  // Listens on all addresses; connections queue until Run. store: outlives the server. loops: how many threads serve.
  // Throws osa::Exception that names the address that can't be listened on.
  Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote, size_t loops,
         const Limits& limits);

  // Ends every connection.
  ~Server();

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Every address as bound, HOST:PORT.
  std::vector<std::string> GetAddresses() const;

  // Serves until a stop signal comes, then ends every connection.
  void Run(const StopSignals& signals);

 private:
  void AcceptFrom(const Listener& listener);
  bool RefuseOne(const Listener& listener);
  EventLoop& FindLeastBusy() const;
  size_t CountConnections() const;

  const Limits _limits;  // with as many connections as there are descriptors for
  settings::server::SerializationManager _serializationManager;
  settings::server::ServerEnv _env;
  std::vector<Listener> _listeners;
  int _spare;               // given up for a moment when descriptors run out, so that the queue can be emptied
  bool _mustPause = false;  // a connection is waiting that can be neither taken nor refused
  std::vector<std::unique_ptr<EventLoop>> _loops;
};

}  // namespace tavix::daemon
