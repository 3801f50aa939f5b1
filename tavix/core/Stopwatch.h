#pragma once

#include <chrono>

namespace tavix::core {

// Measures elapsed time on the monotonic clock.
//
// Threads: one at a time.
class Stopwatch {
 public:
  // start: whether it runs from now on; else it stands at 0 until Start.
  explicit Stopwatch(bool start) {
    if (start) Start();
  }

  void Start() {
    _begin = Clock::now();
    _running = true;
  }

  // Seconds since the start.
  double Read() const { return _running ? std::chrono::duration<double>(Clock::now() - _begin).count() : 0.0; }

 private:
  using Clock = std::chrono::steady_clock;

  Clock::time_point _begin{};
  bool _running = false;
};

}  // namespace tavix::core
