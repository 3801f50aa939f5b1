#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::osa {

class Deadline;

// A shared/exclusive lock without owners: any thread may release what another took, and destroying a lock that is held
// is legal when nobody waits on it. A waiting writer goes before new readers. Not recursive in either mode.
// Take it through ReadAutoLock and WriteAutoLock.
class TAVIX_EXPORT ReadWriteLock {
 public:
  // name: for error texts; may be null.
  explicit ReadWriteLock(const char* name);

  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

  // timeout: milliseconds; kWaitForever never gives up, 0 does not wait. Throw LockException when the time has passed.
  void ReadLock(unsigned int timeout);
  void WriteLock(unsigned int timeout);

  // Ends the write lock if there is one, else one read lock. Throws Exception when neither is held.
  void Release();

 private:
  template <class Ready>
  void Wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wake, unsigned int timeout, Ready ready);

  const std::string _name;
  std::mutex _mutex;  // guards what follows
  std::condition_variable _readersWake;
  std::condition_variable _writersWake;
  unsigned int _readers = 0;
  unsigned int _waitingReaders = 0;
  unsigned int _waitingWriters = 0;
  bool _writing = false;
};

}  // namespace tavix::osa
