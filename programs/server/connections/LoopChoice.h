#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "programs/server/connections/LoopLoad.h"

namespace tavix::daemon {

// Chooses the loop of each new connection. It is the least busy one, as LoopBurden tells, with one exception:
// connections that come in a burst are probably of one process. They follow the first one to its loop, which then
// reads what the process sends in fewer rounds, and processes are spread over the loops. A burst of many is one
// process's almost certainly, and goes on behind a longer gap: that of a machine that stood still.
//
// Threads: any. Of choices that are made at the same time, one may not know of the other.
class LoopChoice {
 public:
  static constexpr uint32_t kMaxGap = 500;         // microseconds between two connections of a burst
  static constexpr uint32_t kMany = 32;            // connections
  static constexpr uint32_t kMaxGapOfMany = 2000;  // microseconds, once a burst has had so many

  using Clock = uint32_t (*)();  // microseconds since any time; may start again from 0

  LoopChoice();
  explicit LoopChoice(Clock clock) : _readMicroseconds(clock) {}

  // Notes that a connection has come, and returns the index of its loop. count: how many loops there are. callers: the
  // index of the caller's loop, which is preferred among equal ones. getBurden: the burden of the loop of an index.
  template <class GetBurden>
  size_t Choose(size_t count, size_t callers, const GetBurden& getBurden) noexcept {
    size_t loop = callers;
    for (size_t i = 0; i < count; ++i) {
      if (getBurden(i).IsLessThan(getBurden(loop))) loop = i;
    }
    const size_t last = _lastLoop.load(std::memory_order_relaxed);
    if (IsInBurst() && last < count && getBurden(last).MayHaveAnother(getBurden(loop))) loop = last;
    _lastLoop.store(loop, std::memory_order_relaxed);
    return loop;
  }

 private:
  bool IsInBurst() noexcept;

  const Clock _readMicroseconds;
  std::atomic<uint32_t> _lastArrival{0};
  std::atomic<uint32_t> _inBurst{0};  // how many connections it has had
  std::atomic<size_t> _lastLoop{SIZE_MAX};
};

}  // namespace tavix::daemon
