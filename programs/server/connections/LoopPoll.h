#pragma once

#include <sys/epoll.h>

#include <cstddef>

#include "programs/server/connections/LoopLoad.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

class EventLoop;

// What an event loop waits for: its connections, which add themselves; descriptors that others watch on its thread; and
// calls of other threads, by an eventfd.
//
// Threads: Wait and TakeCall are the loop's; the rest may be called from any thread.
class LoopPoll {
 public:
  // Is called on a loop's thread while a descriptor is readable.
  class ISource {
   public:
    virtual ~ISource() = default;

    // max: how much may be done before the loop's connections are served again, in connections.
    virtual void OnReadable(EventLoop& loop, size_t max) = 0;
  };

  // Throws osa::Exception when the system refuses a descriptor.
  LoopPoll();

  // Both are borrowed: the epoll descriptor, and the eventfd that wakes the loop.
  int GetDescriptor() const { return _poll.Get(); }
  int GetWakeDescriptor() const { return _wake.Get(); }

  void Wake() const noexcept;
  void TakeCall() const noexcept;

  // Of several polls that watch a descriptor for a source, one whose thread waits is woken, and of these the first that
  // watched it. False, with errno set, when the kernel refuses it. source: outlives the poll.
  bool Watch(int descriptor, ISource& source) const noexcept;
  void Unwatch(int descriptor) const noexcept;

  // How many events there are; a signal ends the wait with none. timeout: milliseconds, as of epoll. Throws
  // osa::Exception when it can't wait.
  size_t Wait(epoll_event* events, int max, int timeout);

  // How busy the loop is between its waits.
  const LoopLoad& GetLoad() const { return _load; }

  // Whose event it is: a source's, or that of the address, which is null for a call.
  static ISource* FindSource(const epoll_event& event);

 private:
  const osa::Descriptor _wake;
  const osa::Descriptor _poll;
  LoopLoad _load;
};

}  // namespace tavix::daemon
