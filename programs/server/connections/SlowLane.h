#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>

#include "programs/common/LoopThread.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// A thread for requests that take long, so that event loops go on with short ones. Jobs run one at a time. They wait in
// two queues, which take turns while both have some:
//
//     present clients    in the order in which the jobs were added. A connection adds its next one when the one before
//                        has ended, so clients take turns
//     departed clients   one connection after the other, as each keeps its memory until its last change is made
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

  // The same for a departed client's first job; for its later ones, which come before the first ones of others.
  void AddForDeparted(IJob& job) TAVIX_EXCLUDES(_mutex);
  void AddNextForDeparted(IJob& job) TAVIX_EXCLUDES(_mutex);

  // The client of a job has left. Does nothing unless the job waits. False: it neither waits nor runs. Throws
  // std::bad_alloc; then the job waits where it did.
  bool MoveToDeparted(IJob& job) TAVIX_EXCLUDES(_mutex);

  // Takes the job back if it waits. False: it does not; it may run, or have run.
  bool TryWithdraw(const IJob& job) TAVIX_EXCLUDES(_mutex);

  // Returns once the job neither runs nor waits. From any thread but the lane's own.
  void Withdraw(const IJob& job) TAVIX_EXCLUDES(_mutex);

  // Ends the job that runs and forgets those that wait. Later ones are never run. A second call does nothing.
  void Stop();

 private:
  void Run();
  IJob* AwaitJob() TAVIX_EXCLUDES(_mutex);
  void EndJob(int doneEvent) TAVIX_EXCLUDES(_mutex);
  bool Remove(const IJob& job) TAVIX_REQUIRES(_mutex);

  osa::PlainMutex _mutex;
  std::condition_variable _wake;
  std::condition_variable _ended;
  std::deque<IJob*> _waiting TAVIX_GUARDED_BY(_mutex);
  std::deque<IJob*> _departed TAVIX_GUARDED_BY(_mutex);
  bool _isDepartedsTurn TAVIX_GUARDED_BY(_mutex) = false;
  const IJob* _running TAVIX_GUARDED_BY(_mutex) = nullptr;
  std::atomic<bool> _stop{false};
  programs::LoopThread _thread;
};

}  // namespace tavix::daemon
