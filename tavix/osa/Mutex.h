#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "tavix/osa/Export.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::osa {

// A mutual-exclusion lock with time limits. Not recursive: a thread that locks it twice gets an exception, never a
// silent deadlock. Take it through MutexAutoLock.
//
// It is the lock where code of the user's runs while it is held, such as a callback or a stream, where another process
// is waited for, or where somebody gives up waiting for it. Elsewhere PlainMutex is, which costs less.
//
// Threads: any; the one that took the lock releases it. It is destroyed when nobody holds it or waits for it.
class TAVIX_EXPORT TAVIX_CAPABILITY("mutex") Mutex {
 public:
  // name: for error texts only; may be null.
  explicit Mutex(const char* name);

  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // timeout: milliseconds; kWaitForever never gives up, 0 does not wait. Throws LockException when the time has passed,
  // Exception when the calling thread holds the lock already.
  void Lock(unsigned int timeout) TAVIX_ACQUIRE();

  // Throws Exception when the calling thread does not hold the lock.
  void Release() TAVIX_RELEASE();

  bool IsHeldByThisThread() const;

  // Returns once a thread that waits for the lock, if there is one, has got it. For a thread that releases the lock
  // only for others to take it in between: as it runs already, it would mostly take the lock again before them. Not for
  // a thread that holds the lock; it returns at once.
  void AwaitWaiter();

 private:
  bool TryLock(unsigned int timeout);

  std::string _name;
  std::timed_mutex _entry;  // held by the one thread that waits for _mutex; the others wait for it
  std::timed_mutex _mutex;
  std::atomic<std::thread::id> _owner{};
};

}  // namespace tavix::osa
