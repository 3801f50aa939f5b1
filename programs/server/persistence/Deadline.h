#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

namespace tavix::daemon {

// Calls back on a thread of its own when the object lives longer than that.
class Deadline : private osa::Runnable {
 public:
  Deadline(std::chrono::milliseconds limit, std::function<void()> onPassed);

  // Waits for a call that is under way.
  ~Deadline() override;

 private:
  void Run() override;

  const std::chrono::steady_clock::time_point _end;
  const std::function<void()> _onPassed;
  std::mutex _mutex;  // guards what follows
  std::condition_variable _wake;
  bool _isOver = false;
  osa::Thread _thread;
};

}  // namespace tavix::daemon
