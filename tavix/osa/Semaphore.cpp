#include "tavix/osa/Semaphore.h"

#include <condition_variable>

#include "tavix/osa/LockException.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

struct Semaphore::Waiter {
  std::condition_variable wake;
  bool isGranted = false;
  Waiter* previous = nullptr;
  Waiter* next = nullptr;
};

Semaphore::Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount)
    : _name(name ? name : "unnamed"), _maxCount(maxCount), _count(initialCount) {
  if (initialCount > maxCount)
    throw Exception("Semaphore '%s': initial count %u is above the maximum %u", _name.c_str(), _count, _maxCount);
}

void Semaphore::Lock(unsigned int timeout) {
  if (!TryLock(timeout)) {
    throw LockException(
        "Lock Timeout: semaphore '" + _name + "' was not free within " + std::to_string(timeout) + " ms",
        LockException::kTimeout);
  }
}

bool Semaphore::TryLock(unsigned int timeout) {
  PlainMutexLock lock(_mutex);
  if (_count > 0) {  // then nobody waits: a release goes to a waiter first
    --_count;
    return true;
  }
  if (timeout == 0) return false;

  Waiter waiter;
  Append(waiter);
  const bool isGranted = lock.WaitUntil(waiter.wake, Deadline(timeout), [&] { return waiter.isGranted; });
  if (!isGranted) Remove(waiter);
  return isGranted;
}

void Semaphore::Release() {
  PlainMutexLock lock(_mutex);
  if (_first) {
    Waiter& next = *_first;
    Remove(next);
    next.isGranted = true;
    next.wake.notify_one();  // under the lock: the waiter's stack may be gone right after
  } else if (_count < _maxCount) {
    ++_count;
  } else {
    throw Exception("Semaphore '%s' was released above its maximum of %u", _name.c_str(), _maxCount);
  }
}

void Semaphore::Append(Waiter& waiter) {
  waiter.previous = _last;
  (_last ? _last->next : _first) = &waiter;
  _last = &waiter;
}

void Semaphore::Remove(Waiter& waiter) {
  (waiter.previous ? waiter.previous->next : _first) = waiter.next;
  (waiter.next ? waiter.next->previous : _last) = waiter.previous;
}

}  // namespace tavix::osa
