#pragma once

#include <cstdint>
#include <optional>
#include <random>

#include "programs/bridge/core/Limits.h"

namespace tavix::bridge {

// When to connect again: after a random wait between nothing and a limit, which doubles with each loss and falls back
// once a connection has lasted. So a fleet whose broker restarts comes back spread over the limit, and a broker that
// closes what it has just accepted is asked ever less often.
//
// Threads: one.
class Backoff {
 public:
  // seed: another one for each device.
  Backoff(const Limits& limits, uint64_t seed);

  void OnConnected(Milliseconds now);

  // A connection, or the attempt to make one, ended. Returns how long to wait before the next attempt.
  Milliseconds OnLost(Milliseconds now);

  Milliseconds GetLimit() const { return _limit; }

 private:
  const Milliseconds _min;
  const Milliseconds _max;
  const Milliseconds _stable;
  std::mt19937_64 _random;
  Milliseconds _limit;  // of the next wait
  std::optional<Milliseconds> _connectedSince;
};

}  // namespace tavix::bridge
