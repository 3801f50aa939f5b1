#pragma once

#include <condition_variable>
#include <string>

#include "tavix/osa/Export.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::osa {

// A shared/exclusive lock without owners. A waiting writer goes before new readers. Not recursive in either mode.
// Take it through ReadAutoLock and WriteAutoLock.
//
// Threads: any, which may also release what another took. Destroying a lock that is held is legal when nobody waits.
class TAVIX_EXPORT TAVIX_CAPABILITY("read-write lock") ReadWriteLock {
 public:
  // name: for error texts; may be null.
  explicit ReadWriteLock(const char* name);

  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

  // timeout: milliseconds; kWaitForever never gives up, 0 does not wait. Throw LockException when the time has passed.
  void ReadLock(unsigned int timeout) TAVIX_ACQUIRE_SHARED();
  void WriteLock(unsigned int timeout) TAVIX_ACQUIRE();

  // Ends the write lock if there is one, else one read lock. Throws Exception when neither is held.
  void Release() TAVIX_RELEASE_GENERIC();

 private:
  bool CanRead() const TAVIX_REQUIRES(_mutex) { return !_isWriting && _waitingWriters == 0; }
  bool CanWrite() const TAVIX_REQUIRES(_mutex) { return !_isWriting && _readers == 0; }
  bool AwaitWriting(PlainMutexLock& lock, unsigned int timeout) TAVIX_REQUIRES(_mutex);
  [[noreturn]] void ThrowTimeout(unsigned int timeout) const;

  const std::string _name;
  PlainMutex _mutex;
  std::condition_variable _readersWake;
  std::condition_variable _writersWake;
  unsigned int _readers TAVIX_GUARDED_BY(_mutex) = 0;
  unsigned int _waitingReaders TAVIX_GUARDED_BY(_mutex) = 0;
  unsigned int _waitingWriters TAVIX_GUARDED_BY(_mutex) = 0;
  bool _isWriting TAVIX_GUARDED_BY(_mutex) = false;
};

}  // namespace tavix::osa
