#pragma once

#include "tavix/osa/ReadWriteLock.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

// Holds a ReadWriteLock for the length of a scope, or until Release. A release that fails is swallowed: whoever calls
// goes on.
class AutoRelease {
 public:
  ~AutoRelease() { Release(); }

  AutoRelease(const AutoRelease&) = delete;
  AutoRelease& operator=(const AutoRelease&) = delete;

  void Release() noexcept {
    if (!_lock) return;
    try {
      _lock->Release();
    } catch (...) {
    }
    _lock = nullptr;
  }

 protected:
  explicit AutoRelease(ReadWriteLock& lock) : _lock(&lock) {}

 private:
  ReadWriteLock* _lock;
};

class ReadAutoLock : public AutoRelease {
 public:
  explicit ReadAutoLock(ReadWriteLock& lock) : AutoRelease((lock.ReadLock(kWaitForever), lock)) {}
};

class WriteAutoLock : public AutoRelease {
 public:
  explicit WriteAutoLock(ReadWriteLock& lock) : AutoRelease((lock.WriteLock(kWaitForever), lock)) {}
};

// Takes over a write lock that is held already, to release it.
class AdoptedWriteLock : public AutoRelease {
 public:
  explicit AdoptedWriteLock(ReadWriteLock& lock) : AutoRelease(lock) {}
};

}  // namespace tavix::osa
