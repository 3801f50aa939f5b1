#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>

#include "programs/common/LoopThread.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// A thread that does one thing again and again: at once, then at that interval, and whenever it is asked to.
//
// Threads: the work runs on a thread of its own, never twice at a time. Work that takes longer than the interval is
//          not made up for.
class Periodic {
 public:
  // name: outlives the thread.
  Periodic(const char* name, std::chrono::milliseconds interval, std::function<void()> work);

  // Returns once the work that is under way has ended.
  ~Periodic();

  Periodic(const Periodic&) = delete;
  Periodic& operator=(const Periodic&) = delete;

  // Has the work done once more as soon as possible.
  void Trigger() TAVIX_EXCLUDES(_mutex);

 private:
  void Run();
  bool BeginRound() TAVIX_EXCLUDES(_mutex);
  void AwaitNextRound() TAVIX_EXCLUDES(_mutex);

  const std::chrono::milliseconds _interval;
  const std::function<void()> _work;
  osa::PlainMutex _mutex;
  std::condition_variable _changed;
  bool _isTriggered TAVIX_GUARDED_BY(_mutex) = false;
  bool _isStopping TAVIX_GUARDED_BY(_mutex) = false;
  programs::LoopThread _thread;
};

}  // namespace tavix::daemon
