#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "programs/server/Connection.h"
#include "programs/server/Listener.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

class SettingsStore;
class StopSignals;

// Accepts connections and serves each on a thread of its own.
//
// Threads: one thread constructs, runs and destroys it.
class Server {
 public:
  // The most connections at a time, fewer when the process may not have enough descriptors for them and for its files;
  // one more is accepted and closed at once.
  static constexpr size_t kMostConnections = 1024;

  // Listens on all addresses; connections queue until Run. store: outlives the server. Throws osa::Exception that names
  // the address that can't be listened on.
  Server(SettingsStore& store, const std::vector<std::string>& addresses, bool allowRemote);

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
  void RemoveEndedConnections();
  void EndAllConnections();

  settings::server::SerializationManager _serializationManager;
  settings::server::ServerEnv _env;
  std::vector<Listener> _listeners;
  int _wake;                // an eventfd that connections write to when they end
  int _spare;               // given up for a moment when descriptors run out, so that the queue can be emptied
  bool _mustPause = false;  // a connection is waiting that can be neither taken nor refused
  const size_t _mostConnections;
  std::list<std::unique_ptr<Connection>> _connections;
};

}  // namespace tavix::daemon
