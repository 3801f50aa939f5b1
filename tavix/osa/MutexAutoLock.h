#pragma once

#include "tavix/osa/Mutex.h"

namespace tavix::osa {

// Holds a Mutex for the length of a scope.
class MutexAutoLock {
 public:
  // timeout: milliseconds, as Mutex::Lock, whose exceptions pass through. lock: false takes nothing, and the destructor
  // then releases nothing.
  MutexAutoLock(Mutex* mutex, unsigned int timeout, bool lock) : _mutex(lock ? mutex : nullptr) {
    if (_mutex) _mutex->Lock(timeout);
  }

  ~MutexAutoLock() {
    if (_mutex) _mutex->Release();
  }

  MutexAutoLock(const MutexAutoLock&) = delete;
  MutexAutoLock& operator=(const MutexAutoLock&) = delete;

 private:
  Mutex* _mutex;
};

}  // namespace tavix::osa
