#pragma once

#include <chrono>
#include <map>
#include <string>

namespace tavix::programs::cli {

// What came of a command that had a limited time.
struct CheckOutcome {
  enum class End {
    kExited,       // by itself, or by somebody else's signal
    kTimedOut,     // it was ended
    kInterrupted,  // so were we, and it was ended
  };

  End end = End::kExited;
  int status = 0;  // of kExited: its exit status; 128 and the signal's number when one ended it
  int signal = 0;  // of kInterrupted: SIGINT, SIGTERM or SIGHUP

  bool HasSucceeded() const { return end == End::kExited && status == 0; }
};

// Runs a shell with "command", and the variables in its environment, until it ends or "limit" is over. It is a process
// group of its own, so that all that it started ends with it, and its standard input is empty. Signals that are ignored
// stay so.
// Throws Failure, kExitNotApplied, when there can be no child.
CheckOutcome RunCheck(const std::string& command, const std::map<std::string, std::string>& variables,
                      std::chrono::steady_clock::time_point limit);

}  // namespace tavix::programs::cli
