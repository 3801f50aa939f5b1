#pragma once

#include <algorithm>
#include <chrono>

namespace tavix::daemon {

// When to retry what fails: after 1 s, then after twice as long each time, up to 60 s. A success makes the next failure
// a first one again.
//
// Threads: one at a time.
class RetryBackoff {
 public:
  using Clock = std::chrono::steady_clock;

  void OnFailure(Clock::time_point now) {
    _delay = std::clamp(2 * _delay, kFirstDelay, kLongestDelay);
    _next = now + _delay;
  }

  // The next failure is a first one again. A time that was set stays.
  void OnSuccess() { _delay = std::chrono::seconds(0); }

  // In the past: at once.
  Clock::time_point GetNextTry() const { return _next; }

 private:
  static constexpr std::chrono::seconds kFirstDelay{1};
  static constexpr std::chrono::seconds kLongestDelay{60};

  std::chrono::seconds _delay{0};
  Clock::time_point _next{};
};

}  // namespace tavix::daemon
