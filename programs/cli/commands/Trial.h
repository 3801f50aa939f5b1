#pragma once

#include <functional>
#include <string>

#include "programs/cli/commands/CommandOptions.h"
#include "programs/cli/commands/Context.h"
#include "programs/cli/commands/Note.h"

// Changes that go back by themselves unless they are confirmed: what the commands share that take --try.
namespace tavix::programs::cli {

struct TrialOptions {
  double seconds = 0;
  bool isGiven = false;
  std::string check;  // a command of the shell
  bool hasCheck = false;
};

// options: outlives the parsing.
void AddTrial(const CommandOptions& command, TrialOptions& options);

// Throws Failure, kExitUsage, for a time that no trial can have, and RequireTrials of Features.h. Nothing when no trial
// is asked for. So nobody is asked or edits in vain.
void RequireTrial(Session& session, const TrialOptions& options);

// What a change has done.
struct Done {
  std::string verb;        // "set"
  std::string count;       // "1 setting"; may be empty
  bool isUnsaved = false;  // it is not meant to be saved
  bool isNothing = false;  // it made no difference: there is nothing to report, nor to try

  std::function<void()> print = {};  // prints what it did, as data; may be empty
};

// Makes a change with its note by the session that the context has then, prints what it did, and reports it; on trial,
// the trial, too, and with a check the outcome. With --quiet or JSON the trial is printed as data. Returns an ExitCode.
// Throws what the change throws, having taken back what it has done by then if it is on trial; RequireTrial; what
// SetNote and ReportDone throw; and
//
//     kExitReverted   when the trial has gone back, as its time is over, somebody reverted it, or the check failed or
//                     was not over in time
//     kExitNoServer   when the connection is lost, a new one does not help, and it is unknown what became of the change
//                     or of the trial; the text names what shows it
//     kExitNotApplied behind all that, when standard output can't be written
//
// An interrupt ends the program with a text: the trial goes back by itself. With a check a hang-up does not.
int MakeChange(Context& context, const Note& note, const TrialOptions& options, const std::function<Done()>& change);

}  // namespace tavix::programs::cli
