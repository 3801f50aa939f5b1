#pragma once

#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// The signals that the daemon answers, as a descriptor that becomes readable: SIGTERM and SIGINT to end it, SIGHUP and
// SIGUSR1 to tell it something.
class Signals {
 public:
  // Holds the signals back from now on, for this thread and those that it creates; one that comes early is not lost.
  // SIGPIPE and SIGXFSZ are ignored from now on: what they would tell is told by the write that fails.
  static void Block();

  // After Block. Throws osa::Exception when the system has no descriptor left.
  Signals();

  int GetDescriptor() const { return _descriptor.Get(); }

  // The next signal's number, 0 when there is none.
  int Take() const;

 private:
  osa::Descriptor _descriptor;
};

}  // namespace tavix::daemon
