#pragma once

#include <atomic>
#include <cstddef>

#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// How many connections there may be at a time. One thread takes a place for each, and any thread frees it.
//
// A connection whose peer is gone may still have requests that are carried out, some in the slow lane. It departs: its
// place is free for others, and it takes one of the places for departed connections. So peers that leave much work
// behind shut nobody out, and what they may cost is bounded all the same.
//
// Threads: Take belongs to one thread; the rest may be called from any thread.
class Places {
 public:
  // Throws osa::Exception when the system has no event descriptor.
  Places(size_t max, size_t maxDeparted);

  // False when there is none. GetDescriptor then becomes readable once there may be one.
  bool Take();

  void Free();

  // Frees the connection's place. False when there are too many departed connections: it keeps its place.
  [[nodiscard]] bool Depart();

  // The end of a connection that has departed.
  void FreeDeparted() { --_departed; }

  // Borrowed.
  int GetDescriptor() const { return _freed.Get(); }

  // Has the descriptor not be readable until the next place is freed for which somebody waits.
  void Acknowledge();

 private:
  const size_t _max;
  const size_t _maxDeparted;
  const osa::Descriptor _freed;
  std::atomic<size_t> _taken{0};
  std::atomic<size_t> _departed{0};
  std::atomic<bool> _isAwaited{false};
};

}  // namespace tavix::daemon
