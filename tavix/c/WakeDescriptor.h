#pragma once

#include <chrono>
#include <optional>

#include "tavix/osa/Descriptor.h"

namespace tavix::c {

// One descriptor for poll(2) that shows as readable when a connection has received something, or a moment has come,
// while connections come and go.
//
// Threads: one. A forked child may destroy it, which its parent does not notice.
// Errors:  CallFailure, TAVIX_BUSY, when the system has no descriptor left.
class WakeDescriptor {
 public:
  using Clock = std::chrono::steady_clock;

  WakeDescriptor();

  int Get() const { return _poller.Get(); }

  // From now on this connection counts, and no other one. It may be closed at any time; -1: none.
  void Follow(int connection);

  // The moment that counts; none: only the connection does.
  void WakeAt(std::optional<Clock::time_point> moment);

 private:
  void Add(int descriptor);

  osa::Descriptor _poller;
  osa::Descriptor _timer;
  osa::Descriptor _connection;  // its own, so that it can be taken out of the poller when the connection is closed
  std::optional<Clock::time_point> _moment;
};

}  // namespace tavix::c
