#pragma once

#include <atomic>
#include <cstddef>

#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// How many connections there may be at a time. Who accepts one takes a place for it, and any thread frees it.
//
// A connection keeps its place as long as it has a descriptor.
//
// Threads: any. One waits for places.
class Places {
 public:
  // Throws osa::Exception when the system has no event descriptor.
  explicit Places(size_t max);

  // False when there is none. GetDescriptor then becomes readable once there may be one.
  bool Take();

  void Free();

  // Borrowed.
  int GetDescriptor() const { return _freed.Get(); }

  // Has the descriptor not be readable until the next place is freed after a Take that returned false.
  void Acknowledge();

 private:
  const size_t _max;
  const osa::Descriptor _freed;
  std::atomic<size_t> _taken{0};
  std::atomic<bool> _isAwaited{false};
};

}  // namespace tavix::daemon
