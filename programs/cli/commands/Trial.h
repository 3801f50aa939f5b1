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
};

// Makes a change with its note by the session that the context has then, and reports it; on trial, the trial, too, and
// with a check the outcome. Returns an ExitCode. Throws what the change throws, having taken back what it has done by
// then if it is on trial; RequireTrial; what SetNote and ReportDone throw; and
//
//     kExitReverted   when the check fails, or is not over in time; the trial is reverted
//     kExitNoServer   when the connection is lost and it is unknown what became of the change or of the trial; the text
//                     names what shows it
//
// An interrupt that comes while the check runs ends the program: the trial goes back by itself, as the text says.
int MakeChange(Context& context, const Note& note, const TrialOptions& options, const std::function<Done()>& change);

}  // namespace tavix::programs::cli
