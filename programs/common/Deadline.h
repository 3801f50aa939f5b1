#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>

#include "programs/common/LoopThread.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::programs {

// Calls back when the object lives longer than that.
//
// Threads: one makes and destroys it; the call comes on the thread "Deadline".
class Deadline {
 public:
  Deadline(std::chrono::milliseconds limit, std::function<void()> onPassed);

  // Waits for a call that is under way.
  ~Deadline();

  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

 private:
  void Run();
  bool IsOverInTime() TAVIX_EXCLUDES(_mutex);

  const std::chrono::steady_clock::time_point _end;
  const std::function<void()> _onPassed;
  osa::PlainMutex _mutex;
  std::condition_variable _wake;
  bool _isOver TAVIX_GUARDED_BY(_mutex) = false;
  LoopThread _thread;
};

}  // namespace tavix::programs
