#pragma once

#include <optional>
#include <string>

#include "programs/bridge/core/Backoff.h"
#include "programs/bridge/engines/Engine.h"

namespace tavix::bridge {

// Keeps an engine connected: the first attempt is made at once, each further one when the backoff allows it.
//
// Threads: one.
class Link {
 public:
  enum class State {
    kWaiting,     // for the moment of the next attempt
    kConnecting,  // an attempt is under way
    kConnected,
  };

  // engine: outlives the link. seed: another one for each device.
  Link(const Limits& limits, Engine& engine, uint64_t seed) : _engine(engine), _backoff(limits, seed) {}

  void OnEvent(const EngineEvent& event, Milliseconds now);

  // Connects when it is time to.
  void Run(const ConnectOptions& options, Milliseconds now);

  // Ends the attempt or the connection, such as one that is silent.
  void Break(const std::string& reason, Milliseconds now);

  // When Run has something to do although nothing happens.
  std::optional<Milliseconds> GetNext() const;

  State GetState() const { return _state; }
  Milliseconds GetSince() const { return _since; }
  const std::string& GetLastReason() const { return _reason; }

 private:
  Engine& _engine;
  Backoff _backoff;
  State _state = State::kWaiting;
  Milliseconds _since{0};
  Milliseconds _nextAttempt{0};
  std::string _reason;  // of the last loss
};

}  // namespace tavix::bridge
