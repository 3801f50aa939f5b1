#pragma once

#include <sys/types.h>

#include <atomic>

namespace tavix::c {

// Keeps a client's or watch's calls to one thread at a time, and to the process that made it.
//
// Threads: any.
// Errors:  CallFailure.
class HandleOwner {
 public:
  HandleOwner();

 private:
  friend class HandleUse;

  const pid_t _process;
  std::atomic<bool> _isInUse{false};
};

// Lives as long as a call with the handle.
class HandleUse {
 public:
  explicit HandleUse(HandleOwner& owner);
  ~HandleUse() { _owner._isInUse.store(false, std::memory_order_release); }

  HandleUse(const HandleUse&) = delete;
  HandleUse& operator=(const HandleUse&) = delete;

 private:
  HandleOwner& _owner;
};

}  // namespace tavix::c
