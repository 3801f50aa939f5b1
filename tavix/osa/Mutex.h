#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "tavix/osa/Export.h"

namespace tavix::osa {

// A mutual-exclusion lock with time limits. Not recursive: a thread that locks it twice gets an exception, never a
// silent deadlock. Take it through MutexAutoLock.
class TAVIX_EXPORT Mutex {
 public:
  // name: for error texts only; may be null.
  explicit Mutex(const char* name);

  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // timeout: milliseconds; kWaitForever never gives up, 0 does not wait. Throws LockException when the time has passed,
  // Exception when the calling thread holds the lock already.
  void Lock(unsigned int timeout);

  // Throws Exception when the calling thread does not hold the lock.
  void Release();

  bool IsHeldByThisThread() const;

 private:
  bool TryLock(unsigned int timeout);

  std::string _name;
  std::timed_mutex _mutex;
  std::atomic<std::thread::id> _owner{};
};

}  // namespace tavix::osa
