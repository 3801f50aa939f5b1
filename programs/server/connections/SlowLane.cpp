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

void SlowLane::AddForDeparted(IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  _departed.push_back(&job);
  _wake.notify_one();
}

void SlowLane::AddNextForDeparted(IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  _departed.push_front(&job);
  _wake.notify_one();
}

bool SlowLane::MoveToDeparted(IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  const auto found = std::find(_waiting.begin(), _waiting.end(), &job);
  if (found == _waiting.end()) {
    return _running == &job || std::find(_departed.begin(), _departed.end(), &job) != _departed.end();
  }
  _departed.push_back(&job);
  _waiting.erase(found);
  return true;
}

bool SlowLane::TryWithdraw(const IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  return Remove(job);
}

void SlowLane::Withdraw(const IJob& job) {
  osa::PlainMutexLock lock(_mutex);
  Remove(job);
  lock.Wait(_ended, [&]() TAVIX_REQUIRES(_mutex) { return _running != &job; });
}

// Whether it waited. It is in one of them at most.
bool SlowLane::Remove(const IJob& job) {
  for (std::deque<IJob*>* jobs : {&_waiting, &_departed}) {
    const auto found = std::find(jobs->begin(), jobs->end(), &job);
    if (found == jobs->end()) continue;
    jobs->erase(found);
    return true;
  }
  return false;
}

void SlowLane::Stop() {
  {
    osa::PlainMutexLock lock(_mutex);
    _stop = true;
    _waiting.clear();
    _departed.clear();
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
  lock.Wait(_wake, [this]() TAVIX_REQUIRES(_mutex) { return _stop || !_waiting.empty() || !_departed.empty(); });
  if (_stop) return nullptr;
  const bool isDeparted = _waiting.empty() || (_isDepartedsTurn && !_departed.empty());
  _isDepartedsTurn = !isDeparted;
  std::deque<IJob*>& jobs = isDeparted ? _departed : _waiting;
  IJob* const job = jobs.front();
  jobs.pop_front();
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
