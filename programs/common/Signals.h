#pragma once

#include <sys/types.h>

#include "tavix/osa/Descriptor.h"

namespace tavix::programs {

// The signals that a daemon answers, as a descriptor that becomes readable: SIGTERM and SIGINT to end it, SIGHUP and
// SIGUSR1 to tell it something.
//
// Threads: one. Block comes first, before there are others.
class Signals {
 public:
  // Holds the signals back from now on, for this thread and those that it creates; one that comes early is not lost.
  // SIGPIPE and SIGXFSZ are ignored from now on: what they would tell is told by the write that fails.
  static void Block();

  // After Block. Throws osa::Exception when the system has no descriptor left.
  Signals();

  int GetDescriptor() const { return _descriptor.Get(); }

  struct Signal {
    int number = 0;
    pid_t process = 0;  // that sent it; 0: the kernel, or one that can't be seen from here
    uid_t user = 0;     // of that process
  };

  // The next signal; its number is 0 when there is none.
  Signal Take() const;

 private:
  osa::Descriptor _descriptor;
};

}  // namespace tavix::programs
