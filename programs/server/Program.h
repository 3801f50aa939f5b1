#pragma once

namespace tavix::daemon {

// What the program ends with, as sysexits.h numbers them.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,          // the command line
  kExitUnavailable = 69,    // an address that can't be listened on
  kExitFailure = 70,        // anything else
  kExitNotSaved = 74,       // the last change could not be saved
  kExitConfiguration = 78,  // a settings file that can't be read or parsed
};

// The whole program: options, loading, serving until SIGTERM or SIGINT. Returns an ExitCode.
int RunProgram(int argc, char** argv);

}  // namespace tavix::daemon
