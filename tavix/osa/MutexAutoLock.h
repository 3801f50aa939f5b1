#pragma once

#include "tavix/osa/Mutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

// Holds a Mutex for the length of a scope. A scope that may have nothing to hold has a std::optional<MutexAutoLock>.
//
// Threads: one, which makes and destroys it.
class TAVIX_SCOPED_CAPABILITY MutexAutoLock {
 public:
  // timeout: milliseconds, as Mutex::Lock, whose exceptions pass through.
  explicit MutexAutoLock(Mutex& mutex, unsigned int timeout = kWaitForever) TAVIX_ACQUIRE(mutex) : _mutex(&mutex) {
    _mutex->Lock(timeout);
  }

  // The same, for programs that were written for this form. lock: false takes nothing, and the destructor then releases
  // nothing; clang takes it for held all the same.
  MutexAutoLock(Mutex* mutex, unsigned int timeout, bool lock) TAVIX_ACQUIRE(mutex) : _mutex(lock ? mutex : nullptr) {
    if (_mutex) _mutex->Lock(timeout);
  }

  ~MutexAutoLock() TAVIX_RELEASE() {
    if (_mutex) _mutex->Release();
  }

  MutexAutoLock(const MutexAutoLock&) = delete;
  MutexAutoLock& operator=(const MutexAutoLock&) = delete;

 private:
  Mutex* _mutex;
};

}  // namespace tavix::osa
