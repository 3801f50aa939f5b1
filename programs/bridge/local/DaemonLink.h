#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "programs/bridge/core/Backoff.h"
#include "programs/bridge/core/Keys.h"
#include "programs/bridge/local/DaemonStore.h"

namespace tavix::bridge {

// Keeps the connection to the daemon: the first attempt is made at once, each further one after a random wait, of up to
// a second at first, and of up to ten while attempts keep failing.
//
// Threads: one.
class DaemonLink {
 public:
  // store: outlives the link. seed: another one for each device.
  DaemonLink(DaemonStore& store, uint64_t seed);

  // Connects when it is time to. Returns whether there is a new connection: all is to be read again. An attempt that
  // fails is a loss.
  bool Run(Milliseconds now);

  // A call of the store threw LocalLost, with that text.
  void OnLost(const std::string& reason, Milliseconds now);

  // When Run has something to do although nothing happens; nothing: there is a connection.
  std::optional<Milliseconds> GetNext() const;

  bool IsConnected() const { return _store.IsConnected(); }
  const std::string& GetLastReason() const { return _reason; }

 private:
  DaemonStore& _store;
  Backoff _backoff;
  Milliseconds _nextAttempt{0};
  std::string _reason;  // of the last loss
};

}  // namespace tavix::bridge
