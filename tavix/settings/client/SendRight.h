#pragma once

#include "tavix/osa/Semaphore.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"

namespace tavix::settings::client {

class TavixSettingsConnection;

// The right to write to the connection of a multi-threaded client. The worker has it while there is no connection, from
// the start on; callers have it for one request each.
//
// Threads: any. Callers have it through SendRightLock.
class TAVIX_CAPABILITY("right") SendRight {
 public:
  SendRight() : _semaphore("sendMutex", 1, 0) {}

  SendRight(const SendRight&) = delete;
  SendRight& operator=(const SendRight&) = delete;

  // The worker gives the right to callers, once there is a connection, and takes it back when that is lost. Both are
  // parts of one cycle in different functions, which the analysis of locks does not follow.
  void GiveToCallers() { _semaphore.Release(); }
  void TakeFromCallers() { _semaphore.Lock(osa::kWaitForever); }

 private:
  friend class SendRightLock;

  osa::Semaphore _semaphore;
};

// Has the right to write for the length of a scope.
class TAVIX_SCOPED_CAPABILITY SendRightLock {
 public:
  // timeout: milliseconds. Throws LockException when they have passed. With a connection it says why that could not be
  // made: then the worker has the right still. When it was made, another caller's request took so long.
  SendRightLock(SendRight& right, unsigned int timeout, const TavixSettingsConnection* connection = nullptr)
      TAVIX_ACQUIRE(right);

  // A right that can't be given back would block all callers for ever: then the process is aborted.
  ~SendRightLock() TAVIX_RELEASE();

  SendRightLock(const SendRightLock&) = delete;
  SendRightLock& operator=(const SendRightLock&) = delete;

 private:
  osa::Semaphore& _semaphore;
};

}  // namespace tavix::settings::client
