#pragma once

#include <atomic>

#include "programs/common/LoopThread.h"
#include "programs/server/store/StoreTrials.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// A thread that reverts what nobody confirmed in time. It has no other work: a revert that brings an administrator back
// waits for no client's request.
//
// Threads: one makes and destroys it.
// Errors:  osa::Exception from the constructor when the system has no descriptor or no thread.
class TimedReverts {
 public:
  // trials: outlives the object.
  explicit TimedReverts(StoreTrials& trials);

  // Returns once no revert is under way. Later ones are not made.
  ~TimedReverts();

  TimedReverts(const TimedReverts&) = delete;
  TimedReverts& operator=(const TimedReverts&) = delete;

 private:
  void Run();

  StoreTrials& _trials;
  const osa::Descriptor _wake;  // readable when the thread is to end
  std::atomic<bool> _isStopping{false};
  programs::LoopThread _thread;
};

}  // namespace tavix::daemon
