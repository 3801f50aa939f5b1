#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "programs/cli/commands/Context.h"
#include "programs/cli/commands/TrialRequests.h"
#include "programs/cli/terminal/InterruptReport.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

// A change on trial, from before its first request to what comes of it. An interrupt ends the program with a text that
// names the trial; with a check, a hang-up ends nothing.
//
// Threads: one, and one trial at a time.
// Errors:  Failure, as MakeChange (Trial.h) has them.
class RunningTrial {
 public:
  // context: outlives this. check: a command of the shell; empty: there is none. Connects, and has what the session
  // writes from now on put on trial.
  RunningTrial(Context& context, unsigned seconds, const std::optional<std::string>& check);

  // Behind a change that failed. What it has done by then goes back now, as half a change is none.
  [[noreturn]] void Fail(const Failure& failure);

  // Prints what the change did. An output that can't be written is reported by Finish, as the trial goes on.
  void Print(const std::function<void()>& print);

  // Behind a change that was made. Returns an ExitCode.
  int Finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string ShowSeconds() const { return std::to_string(_seconds) + " s"; }
  std::string ConfirmCommand() const;

  std::string FindRefusal() const;
  [[noreturn]] void TakeBack(const Failure& failure);
  TrialAnswer AskAgain(const char* word);
  TrialAnswer AskWhatIsOnTrial();
  std::chrono::seconds FindTimeLeft() const;
  int ReportNothing() const;
  void RequireNotReverted() const;
  void Announce() const;
  void PrintName();

  int Check(Clock::time_point limit);
  int Confirm();
  [[noreturn]] void Revert(const std::string& reason);
  [[noreturn]] void FailInterrupted(int signal) const;

  Context& _context;
  const unsigned _seconds;
  const std::optional<std::string> _check;
  const std::string _name;
  InterruptReport _interrupts;
  bool _isReconnected = false;
  TrialState _trial;                  // behind the change
  std::optional<Failure> _unprinted;  // why standard output can't be written
};

}  // namespace tavix::programs::cli
