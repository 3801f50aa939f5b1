#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>

#include "programs/common/LoopThread.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// A thread for requests that take long, so that event loops go on with short ones. Jobs run one at a time, in the order
// in which they were added. A connection adds its next job when the one before has ended, so clients take turns.
//
// Threads: every operation may be called from any thread, but for Stop and the destructor, which one thread calls.
// Locks:   its own mutex, inside all others; it is not held while a job runs.
// Owns:    no job. A job stays valid until its Run has ended, or until it was withdrawn.
class SlowLane {
 public:
  class IJob {
   public:
    virtual ~IJob() = default;

    // Does the work, on the lane's thread. isStopped: returns true when the lane is to end; the job then ends soon.
    virtual void Run(const std::function<bool()>& isStopped) noexcept = 0;

    // A non-blocking eventfd that is written when Run has ended. It is as long valid as the job is.
    virtual int GetDoneEvent() const = 0;
  };

  // Starts the thread.
  SlowLane();

  // Stops the lane.
  ~SlowLane();

  SlowLane(const SlowLane&) = delete;
  SlowLane& operator=(const SlowLane&) = delete;

  // Throws std::bad_alloc, and has not added the job then.
  void Add(IJob& job) TAVIX_EXCLUDES(_mutex);

  // Returns once the job neither runs nor waits. From any thread but the lane's own.
  void Withdraw(const IJob& job) TAVIX_EXCLUDES(_mutex);

  // Ends the job that runs and forgets those that wait. Later ones are never run. A second call does nothing.
  void Stop();

 private:
  void Run();
  IJob* AwaitJob() TAVIX_EXCLUDES(_mutex);
  void EndJob(int doneEvent) TAVIX_EXCLUDES(_mutex);

  osa::PlainMutex _mutex;
  std::condition_variable _wake;
  std::condition_variable _ended;
  std::deque<IJob*> _waiting TAVIX_GUARDED_BY(_mutex);
  const IJob* _running TAVIX_GUARDED_BY(_mutex) = nullptr;
  std::atomic<bool> _stop{false};
  programs::LoopThread _thread;
};

}  // namespace tavix::daemon
