#pragma once

#include <condition_variable>
#include <mutex>

#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

// A std::mutex that the compiler knows as a lock. For sections in which our own code runs alone and nobody gives up
// waiting; else osa::Mutex is the lock. Take it through PlainMutexLock.
//
// Threads: a thread that locks it twice waits for itself.
class TAVIX_CAPABILITY("mutex") PlainMutex {
 public:
  PlainMutex() = default;

  PlainMutex(const PlainMutex&) = delete;
  PlainMutex& operator=(const PlainMutex&) = delete;

 private:
  friend class PlainMutexLock;

  std::mutex _mutex;
};

// Holds a PlainMutex for the length of a scope, and waits for conditions under it.
//
// Threads: belongs to the thread that made it.
class TAVIX_SCOPED_CAPABILITY PlainMutexLock {
 public:
  explicit PlainMutexLock(PlainMutex& mutex) TAVIX_ACQUIRE(mutex) : _lock(mutex._mutex) {}
  ~PlainMutexLock() TAVIX_RELEASE() {}

  PlainMutexLock(const PlainMutexLock&) = delete;
  PlainMutexLock& operator=(const PlainMutexLock&) = delete;

  // Returns once isReady() is true, which is asked at once and whenever "condition" was notified, with the mutex held.
  // Meanwhile the mutex is free.
  template <class IsReady>
  void Wait(std::condition_variable& condition, IsReady isReady) {
    condition.wait(_lock, isReady);
  }

  // As Wait, until that moment at most. False when isReady() is false even then.
  template <class IsReady>
  [[nodiscard]] bool WaitUntil(std::condition_variable& condition, Deadline::Clock::time_point end, IsReady isReady) {
    return condition.wait_until(_lock, end, isReady);
  }

  template <class IsReady>
  [[nodiscard]] bool WaitUntil(std::condition_variable& condition, const Deadline& deadline, IsReady isReady) {
    if (!deadline.IsNever()) return condition.wait_until(_lock, deadline.GetEnd(), isReady);
    condition.wait(_lock, isReady);
    return true;
  }

  // The same without a question: they return when "condition" was notified, and now and then without a reason. Callers
  // look what has changed, and wait again.
  void Wait(std::condition_variable& condition) { condition.wait(_lock); }
  void WaitUntil(std::condition_variable& condition, Deadline::Clock::time_point end) {
    condition.wait_until(_lock, end);
  }

 private:
  std::unique_lock<std::mutex> _lock;
};

}  // namespace tavix::osa
