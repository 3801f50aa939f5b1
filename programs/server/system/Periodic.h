#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

namespace tavix::daemon {

// A thread that does one thing again and again: at once, then at that interval, and whenever it is asked to.
//
// Threads: the work runs on a thread of its own, never twice at a time. Work that takes longer than the interval is
//          not made up for.
class Periodic : private osa::Runnable {
 public:
  // name: outlives the thread.
  Periodic(const char* name, std::chrono::milliseconds interval, std::function<void()> work);

  // Returns once the work that is under way has ended.
  ~Periodic() override;

  // Has the work done once more as soon as possible.
  void Trigger();

 private:
  void Run() override;

  const std::chrono::milliseconds _interval;
  const std::function<void()> _work;
  std::mutex _mutex;  // guards what follows
  std::condition_variable _changed;
  bool _isTriggered = false;
  bool _stop = false;
  osa::Thread _thread;
};

}  // namespace tavix::daemon
