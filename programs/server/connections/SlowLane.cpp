#include "programs/server/connections/SlowLane.h"

#include <sys/eventfd.h>

#include <algorithm>

namespace tavix::daemon {

SlowLane::SlowLane() : _thread("SlowLane", [this] { Run(); }) {}

SlowLane::~SlowLane() {
  Stop();
}

void SlowLane::Add(IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  _waiting.push_back(&job);
  _wake.notify_one();
}

void SlowLane::Withdraw(const IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  _waiting.erase(std::remove(_waiting.begin(), _waiting.end(), &job), _waiting.end());
  lock.Wait(_ended, [&]() TAVIX_REQUIRES(_mutex) { return _running != &job; });
}

void SlowLane::Stop() {
  {
    osa::PlainMutexLock lock(_mutex);
    _stop = true;
    _waiting.clear();
  }
  _wake.notify_one();
  _thread.Join();
}

void SlowLane::Run() {
  const std::function<bool()> isStopped = [this] { return _stop.load(std::memory_order_relaxed); };
  while (IJob* job = AwaitJob()) {
    // Asked for before the job runs: as soon as it counts as ended, its owner may destroy it.
    const int doneEvent = job->GetDoneEvent();
    job->Run(isStopped);
    EndJob(doneEvent);
  }
}

// Null when it is time to stop.
SlowLane::IJob* SlowLane::AwaitJob() {
  osa::PlainMutexLock lock(_mutex);
  lock.Wait(_wake, [this]() TAVIX_REQUIRES(_mutex) { return _stop || !_waiting.empty(); });
  if (_stop) return nullptr;
  IJob* const job = _waiting.front();
  _waiting.pop_front();
  _running = job;
  return job;
}

// The event first: once a job no longer runs, its owner may close it.
void SlowLane::EndJob(int doneEvent) {
  {
    osa::PlainMutexLock lock(_mutex);
    eventfd_write(doneEvent, 1);
    _running = nullptr;
  }
  _ended.notify_all();
}

}  // namespace tavix::daemon
