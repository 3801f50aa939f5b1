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
  std::unique_lock<std::mutex> lock(_mutex);
  const auto ready = [this] { return !_writing && _waitingWriters == 0; };
  if (!ready()) {
    Counted waiting(_waitingReaders);
    Wait(lock, _readersWake, timeout, ready);
  }
  ++_readers;
}

void ReadWriteLock::WriteLock(unsigned int timeout) {
  std::unique_lock<std::mutex> lock(_mutex);
  const auto ready = [this] { return !_writing && _readers == 0; };
  if (!ready()) {
    try {
      Counted waiting(_waitingWriters);
      Wait(lock, _writersWake, timeout, ready);
    } catch (...) {
      if (_waitingWriters == 0) _readersWake.notify_all();  // those that stood behind this writer
      throw;
    }
  }
  _writing = true;
}

void ReadWriteLock::Release() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (_writing) {
    _writing = false;
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

template <class Ready>
void ReadWriteLock::Wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wake, unsigned int timeout,
                         Ready ready) {
  const Deadline deadline(timeout);
  if (deadline.IsNever()) {
    wake.wait(lock, ready);
  } else if (!wake.wait_until(lock, deadline.GetEnd(), ready)) {
    throw LockException("Lock Timeout: lock '" + _name + "' was not free within " + std::to_string(timeout) + " ms",
                        LockException::kTimeout);
  }
}

}  // namespace tavix::osa
