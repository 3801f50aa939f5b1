#include "tavix/osa/Mutex.h"

#include "tavix/osa/LockException.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

Mutex::Mutex(const char* name) : _name(name ? name : "unnamed") {}

bool Mutex::IsHeldByThisThread() const {
  return _owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void Mutex::Lock(unsigned int timeout) {
  if (IsHeldByThisThread()) throw Exception("Mutex '%s' is already held by this thread", _name.c_str());
  if (!TryLock(timeout)) {
    throw LockException("Lock Timeout: mutex '" + _name + "' was not free within " + std::to_string(timeout) + " ms",
                        LockException::kTimeout);
  }
  _owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool Mutex::TryLock(unsigned int timeout) {
  if (timeout == kWaitForever) {
    _mutex.lock();
    return true;
  }
  if (timeout == 0) return _mutex.try_lock();
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer does not see a lock that is taken by the monotonic clock, and takes its release for an error.
  return _mutex.try_lock_until(std::chrono::system_clock::now() + std::chrono::milliseconds(timeout));
#else
  return _mutex.try_lock_until(Deadline(timeout).GetEnd());
#endif
}

void Mutex::Release() {
  if (!IsHeldByThisThread())
    throw Exception("Mutex '%s' was released by a thread that does not hold it", _name.c_str());
  _owner.store(std::thread::id(), std::memory_order_relaxed);
  _mutex.unlock();
}

}  // namespace tavix::osa
