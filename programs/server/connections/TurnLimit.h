#pragma once

#include <cstdint>
#include <ctime>

namespace tavix::daemon {

// Ends early enough for the others, however long the requests take. The clock is read where there are more of them
// only, and of the clocks the cheapest, which goes by steps of some milliseconds.
//
// Threads: one.
class TurnLimit {
 public:
  explicit TurnLimit(int milliseconds) : _milliseconds(milliseconds) {}

  // To be called before each request that is followed by another, and to be asked behind it.
  void Begin() {
    if (_requests++ == 0) _begin = ReadClock();
  }
  bool IsOver() const { return _requests == kMaxRequests || ReadClock() - _begin >= _milliseconds; }

 private:
  static int64_t ReadClock() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
  }

  static constexpr int kMaxRequests = 64;

  const int _milliseconds;
  int _requests = 0;
  int64_t _begin = 0;
};

}  // namespace tavix::daemon
