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
  if (_mutex.try_lock()) return true;
  if (timeout == 0) return false;
  if (timeout == kWaitForever) {
    const std::lock_guard<std::timed_mutex> entry(_entry);
    _mutex.lock();
    return true;
  }
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer does not see a lock that is taken by the monotonic clock, and takes its release for an error.
  const auto end = std::chrono::system_clock::now() + std::chrono::milliseconds(timeout);
#else
  const auto end = Deadline(timeout).GetEnd();
#endif
  const std::unique_lock<std::timed_mutex> entry(_entry, end);
  return entry.owns_lock() && _mutex.try_lock_until(end);
}

void Mutex::AwaitWaiter() {
  if (IsHeldByThisThread()) return;
  const std::lock_guard<std::timed_mutex> entry(_entry);
}

void Mutex::Release() {
  if (!IsHeldByThisThread())
    throw Exception("Mutex '%s' was released by a thread that does not hold it", _name.c_str());
  _owner.store(std::thread::id(), std::memory_order_relaxed);
  _mutex.unlock();
}

}  // namespace tavix::osa
