#include "programs/cli/commands/Trial.h"

#include <cmath>
#include <exception>
#include <optional>

#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/commands/RunningTrial.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

int MakeTried(Context& context, const Note& note, const TrialOptions& options, const std::function<Done()>& change) {
  RequireTrial(context.GetSession(), options);
  RunningTrial trial(context, static_cast<unsigned>(options.seconds),
                     options.hasCheck ? std::make_optional(options.check) : std::nullopt);
  SetNote(context, note);
  Done done;
  try {
    done = change();
  } catch (const Failure& failure) {
    trial.Fail(failure);
  } catch (const std::exception& exception) {
    trial.Fail(Failure(kExitNotApplied, exception.what()));
  }
  trial.Print(done.print);
  std::optional<Failure> notKept;
  try {
    if (!done.isNothing) RequireKept(context, done.verb);
  } catch (const Failure& failure) {
    notKept = failure;
  }
  const int code = trial.Finish();
  if (notKept) throw Failure(*notKept);
  return code;
}

}  // namespace

void AddTrial(const CommandOptions& command, TrialOptions& options) {
  constexpr double kMinSeconds = 1;
  const DeclaredOption trial = command
                                   .AddSeconds("--try", options.seconds, kMinSeconds,
                                               "Take it back after so many seconds unless it is confirmed")
                                   .SetWhenGiven(options.isGiven);
  command.AddText("--check", options.check, "With --try: run this by the shell; confirm if it succeeds, else revert")
      .SetWhenGiven(options.hasCheck)
      .Need(trial);
}

void RequireTrial(Session& session, const TrialOptions& options) {
  constexpr double kMaxSeconds = 3600;
  if (!options.isGiven) return;
  if (options.seconds > kMaxSeconds || std::floor(options.seconds) != options.seconds)
    throw Failure(kExitUsage, "--try: expected whole seconds, 1 to 3600");
  RequireTrials(session, "--try");
}

int MakeChange(Context& context, const Note& note, const TrialOptions& options, const std::function<Done()>& change) {
  if (options.isGiven) return MakeTried(context, note, options, change);
  SetNote(context, note);
  const Done done = change();
  if (done.print) done.print();
  if (done.isNothing) return kExitDone;
  if (done.isUnsaved) {
    context.GetConsole().Say("done: " + done.count);
  } else {
    ReportDone(context, done.verb, done.count);
  }
  return kExitDone;
}

}  // namespace tavix::programs::cli
