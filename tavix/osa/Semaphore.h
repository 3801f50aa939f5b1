#pragma once

#include <string>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::osa {

// A counting semaphore, first come, first served: a release goes to the thread that has waited longest, and a newcomer
// never overtakes.
//
// Threads: any, which may also release what another took.
class Semaphore {
 public:
  // name: for error texts; may be null. maxCount: what may be free at most. initialCount: what is free now.
  Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount);

  // Nobody may wait on it any more.
  ~Semaphore() = default;

  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Takes one. timeout: milliseconds; kWaitForever never gives up, 0 does not wait. Throws LockException when it
  // passes.
  void Lock(unsigned int timeout);

  // As Lock, but false when the time has passed.
  [[nodiscard]] bool TryLock(unsigned int timeout);

  // Gives one back. Throws Exception when all were free already.
  void Release();

 private:
  struct Waiter;

  void Append(Waiter& waiter) TAVIX_REQUIRES(_mutex);
  void Remove(Waiter& waiter) TAVIX_REQUIRES(_mutex);

  const std::string _name;
  const unsigned int _maxCount;
  PlainMutex _mutex;
  unsigned int _count TAVIX_GUARDED_BY(_mutex);
  Waiter* _first TAVIX_GUARDED_BY(_mutex) TAVIX_PT_GUARDED_BY(_mutex) = nullptr;  // the waiters, on their own stacks
  Waiter* _last TAVIX_GUARDED_BY(_mutex) TAVIX_PT_GUARDED_BY(_mutex) = nullptr;
};

}  // namespace tavix::osa
