#pragma once

#include <functional>

#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

namespace tavix::daemon {

// A thread that runs one loop from the object's construction on. The destructor waits for the loop's end.
class LoopThread : private osa::Runnable {
 public:
  LoopThread(const char* name, std::function<void()> loop);
  ~LoopThread() override;

 private:
  void Run() override { _loop(); }

  const std::function<void()> _loop;
  osa::Thread _thread;
};

}  // namespace tavix::daemon
