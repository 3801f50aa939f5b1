#pragma once

#include <cstdint>
#include <deque>
#include <queue>

#include "tavix/osa/LockException.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/Semaphore.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

// A bounded first-in-first-out queue of values. Receiving waits for a message; sending never waits, it throws when the
// queue is full.
//
// Threads: any number of senders and receivers. A receiver that is woken always finds its message queued.
// Owns:    the messages; of pointers, not what they point to.
template <class T>
class tMsgQueue {
 public:
  // name: for the error texts of its locks; may be null.
  tMsgQueue(const char* name, unsigned short capacity)
      : _mutex(name), _semaphore(name, capacity, 0), _capacity(capacity) {}

  virtual ~tMsgQueue() = default;

  tMsgQueue(const tMsgQueue&) = delete;
  tMsgQueue& operator=(const tMsgQueue&) = delete;

  // Takes the oldest message into "out" and returns true. timeout: milliseconds; kWaitForever never gives up, 0 does
  // not wait. Throws LockException "Lock Timeout" when the time has passed.
  bool GetMsg(T& out, unsigned int timeout) {
    if (!_semaphore.TryLock(timeout)) throw LockException("Lock Timeout", LockException::kTimeout);
    MutexAutoLock lock(_mutex);
    out = _messages.front();
    _messages.pop();
    return true;
  }

  // Throws Exception "Message Queue Is Full" and leaves the queue as it is when it holds its capacity.
  void SendMsg(const T& msg) {
    {
      MutexAutoLock lock(_mutex);
      if (_messages.size() >= _capacity) throw Exception("Message Queue Is Full");
      _messages.push(msg);
    }
    _semaphore.Release();
  }

  // How many messages wait at this moment.
  size_t GetSize() {
    MutexAutoLock lock(_mutex);
    return _messages.size();
  }

 private:
  Mutex _mutex;
  std::queue<T, std::deque<T>> _messages TAVIX_GUARDED_BY(_mutex);
  Semaphore _semaphore;  // counts the messages that may be taken
  uint32_t _capacity;
};

}  // namespace tavix::osa
