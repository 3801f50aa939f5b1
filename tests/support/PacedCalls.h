#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tests/support/Durations.h"

namespace tavix::test {

// Between two calls of a well-behaved client.
constexpr std::chrono::milliseconds kUsualPause{1};

// What repeated calls took, in milliseconds.
struct CallFigures {
  size_t count = 0;
  double median = 0;
  double p99 = 0;
  double longest = 0;
};

CallFigures Summarise(const Durations& durations);

// Makes a call again and again on a thread of its own and takes the time of each.
class PacedCalls {
 public:
  // pause: between two calls. call: returns a description of what was wrong; empty when nothing was. That, and an
  // exception of it, is the last one. interrupt: makes a call that is under way end soon, from another thread.
  PacedCalls(std::chrono::milliseconds pause, std::function<std::string()> call, std::function<void()> interrupt);
  ~PacedCalls();

  PacedCalls(const PacedCalls&) = delete;
  PacedCalls& operator=(const PacedCalls&) = delete;

  size_t Count() const { return _count; }

  // Has no further call made, and interrupts the one that is under way: the time up to then counts. Once.
  Durations Stop();

  // What went wrong before Stop; empty when nothing did.
  std::string GetFailure() const;

 private:
  void Run();
  std::string CallOnce();

  const std::chrono::milliseconds _pause;
  const std::function<std::string()> _call;
  const std::function<void()> _interrupt;
  std::atomic<bool> _isStopping{false};
  std::atomic<size_t> _count{0};
  Durations _durations;  // the thread's while it runs
  mutable std::mutex _mutex;
  std::string _failure;  // guarded by _mutex
  std::thread _thread;
};

}  // namespace tavix::test
