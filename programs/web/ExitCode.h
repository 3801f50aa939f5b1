#pragma once

namespace tavix::web {

// What the program ends with, as sysexits.h numbers them.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,          // the command line
  kExitUnavailable = 69,    // an address that can't be listened on
  kExitFailure = 70,        // anything else
  kExitConfiguration = 78,  // options that would let the wrong ones in, or a file that is wrong or can't be read
};

}  // namespace tavix::web
