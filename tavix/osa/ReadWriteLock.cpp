#include "tavix/osa/ReadWriteLock.h"

#include "tavix/osa/LockException.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

// Counts a waiter for as long as it waits, also when it gives up.
class Counted {
 public:
  explicit Counted(unsigned int& count) : _count(count) { ++_count; }
  ~Counted() { --_count; }

 private:
  unsigned int& _count;
};

}  // namespace

ReadWriteLock::ReadWriteLock(const char* name) : _name(name ? name : "unnamed") {}

void ReadWriteLock::ReadLock(unsigned int timeout) {
  PlainMutexLock lock(_mutex);
  if (!CanRead()) {
    const Counted waiting(_waitingReaders);
    const auto canRead = [this]() TAVIX_REQUIRES(_mutex) { return CanRead(); };
    if (!lock.WaitUntil(_readersWake, Deadline(timeout), canRead)) ThrowTimeout(timeout);
  }
  ++_readers;
}

void ReadWriteLock::WriteLock(unsigned int timeout) {
  PlainMutexLock lock(_mutex);
  if (!CanWrite() && !AwaitWriting(lock, timeout)) {
    if (_waitingWriters == 0) _readersWake.notify_all();  // those that stood behind this writer
    ThrowTimeout(timeout);
  }
  _isWriting = true;
}

bool ReadWriteLock::AwaitWriting(PlainMutexLock& lock, unsigned int timeout) {
  const Counted waiting(_waitingWriters);
  const auto canWrite = [this]() TAVIX_REQUIRES(_mutex) { return CanWrite(); };
  return lock.WaitUntil(_writersWake, Deadline(timeout), canWrite);
}

void ReadWriteLock::Release() {
  PlainMutexLock lock(_mutex);
  if (_isWriting) {
    _isWriting = false;
  } else if (_readers > 0) {
    --_readers;
  } else {
    throw Exception("Read-write lock '%s' was released but not held", _name.c_str());
  }
  if (_readers > 0) return;
  if (_waitingWriters > 0) {
    _writersWake.notify_one();
  } else if (_waitingReaders > 0) {
    _readersWake.notify_all();
  }
}

void ReadWriteLock::ThrowTimeout(unsigned int timeout) const {
  throw LockException("Lock Timeout: lock '" + _name + "' was not free within " + std::to_string(timeout) + " ms",
                      LockException::kTimeout);
}

}  // namespace tavix::osa
