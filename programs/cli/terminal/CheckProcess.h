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
    kStopped,      // it asked the terminal, which it does not have, and was ended
    kInterrupted,  // so were we, and it was ended
  };

  End end = End::kExited;
  int status = 0;  // of kExited: its exit status; 128 and the signal's number when one ended it
  int signal = 0;  // of kInterrupted: SIGINT, SIGTERM, SIGQUIT or SIGHUP

  bool HasSucceeded() const { return end == End::kExited && status == 0; }
};

// Runs a shell with "command", and the variables in its environment, until it ends or "limit" is over. Its standard
// input is empty, and it is a process group of its own: all of that is ended with it, but what it leaves behind when it
// ends by itself runs on. Signals that are ignored stay so, but for SIGPIPE.
// Throws Failure, kExitNotApplied, when there can be no child.
CheckOutcome RunCheck(const std::string& command, const std::map<std::string, std::string>& variables,
                      std::chrono::steady_clock::time_point limit);

}  // namespace tavix::programs::cli
