#pragma once

namespace tavix::daemon {

// What the program ends with, as sysexits.h numbers them.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,          // the command line
  kExitUnavailable = 69,    // an address that can't be listened on, or user settings that are in use
  kExitFailure = 70,        // anything else
  kExitResources = 71,      // no descriptors or no memory at the start; another start may succeed
  kExitNotSaved = 74,       // the last change could not be saved
  kExitConfiguration = 78,  // the configuration, or a file that it names, is wrong or can't be read
};

}  // namespace tavix::daemon
