#pragma once

namespace tavix::bridge {

// What the program ends with, as sysexits.h numbers them.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,          // the command line
  kExitUnavailable = 69,    // the runtime directory can't be used
  kExitFailure = 70,        // anything else
  kExitConfiguration = 78,  // the configuration is wrong, or that of another bridge excludes it
};

}  // namespace tavix::bridge
