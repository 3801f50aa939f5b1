#pragma once

#include "tavix/osa/ReadWriteLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

// What the scopes below share: releases once. A release that fails is swallowed: the caller goes on.
//
// Threads: one at a time, as for the scopes below.
class HeldReadWriteLock {
 public:
  explicit HeldReadWriteLock(ReadWriteLock& lock) : _lock(&lock) {}
  ~HeldReadWriteLock() { Release(); }

  HeldReadWriteLock(const HeldReadWriteLock&) = delete;
  HeldReadWriteLock& operator=(const HeldReadWriteLock&) = delete;

  // The scopes' own marks say that the lock is released; here it is a member's, which can't be followed.
  void Release() noexcept TAVIX_NO_THREAD_SAFETY_ANALYSIS {
    if (!_lock) return;
    try {
      _lock->Release();
    } catch (...) {
    }
    _lock = nullptr;
  }

 private:
  ReadWriteLock* _lock;
};

// Holds a ReadWriteLock for reading, for the length of a scope or until Release.
class TAVIX_SCOPED_CAPABILITY ReadAutoLock {
 public:
  explicit ReadAutoLock(ReadWriteLock& lock) TAVIX_ACQUIRE_SHARED(lock) : _held((lock.ReadLock(kWaitForever), lock)) {}
  ~ReadAutoLock() TAVIX_RELEASE() {}

  void Release() noexcept TAVIX_RELEASE() { _held.Release(); }

 private:
  HeldReadWriteLock _held;
};

// Holds a ReadWriteLock for writing, for the length of a scope or until Release.
class TAVIX_SCOPED_CAPABILITY WriteAutoLock {
 public:
  explicit WriteAutoLock(ReadWriteLock& lock) TAVIX_ACQUIRE(lock) : _held((lock.WriteLock(kWaitForever), lock)) {}
  ~WriteAutoLock() TAVIX_RELEASE() {}

  void Release() noexcept TAVIX_RELEASE() { _held.Release(); }

 private:
  HeldReadWriteLock _held;
};

// Takes over a write lock that is held already, to release it.
class TAVIX_SCOPED_CAPABILITY AdoptedWriteLock {
 public:
  explicit AdoptedWriteLock(ReadWriteLock& lock) TAVIX_REQUIRES(lock) : _held(lock) {}
  ~AdoptedWriteLock() TAVIX_RELEASE() {}

  void Release() noexcept TAVIX_RELEASE() { _held.Release(); }

 private:
  HeldReadWriteLock _held;
};

}  // namespace tavix::osa
