#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "programs/server/system/LoopThread.h"

namespace tavix::daemon {

// Calls back on a thread of its own when the object lives longer than that.
class Deadline {
 public:
  Deadline(std::chrono::milliseconds limit, std::function<void()> onPassed);

  // Waits for a call that is under way.
  ~Deadline();

  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

 private:
  void Run();

  const std::chrono::steady_clock::time_point _end;
  const std::function<void()> _onPassed;
  std::mutex _mutex;  // guards what follows
  std::condition_variable _wake;
  bool _isOver = false;
  LoopThread _thread;
};

}  // namespace tavix::daemon
