#pragma once

#include <atomic>
#include <functional>

#include "programs/server/connections/SlowLane.h"
#include "programs/server/store/StoreTrials.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// Has the slow lane revert what nobody confirmed in time: a revert may change many settings, and loops go on meanwhile.
//
// Threads: one; the reverts run on the lane's.
class TimedReverts : private SlowLane::IJob {
 public:
  // trials, lane: outlive the object, but for a lane that is stopped.
  TimedReverts(StoreTrials& trials, SlowLane& lane);

  // The lane is stopped, or does not run the reverts any more when it returns.
  ~TimedReverts() override;

  TimedReverts(const TimedReverts&) = delete;
  TimedReverts& operator=(const TimedReverts&) = delete;

  // Readable when OnDue is to be called; borrowed.
  int GetDescriptor() const { return _trials.GetDescriptor(); }
  void OnDue();

 private:
  void Run(const std::function<bool()>& isStopped) noexcept override;
  int GetDoneEvent() const override { return _done.Get(); }

  StoreTrials& _trials;
  SlowLane& _lane;
  std::atomic<bool> _isQueued{false};  // in the lane
  const osa::Descriptor _done;         // nobody waits for it
};

}  // namespace tavix::daemon
