#include "programs/cli/commands/Trial.h"

#include <sys/random.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/commands/TrialRequests.h"
#include "programs/cli/terminal/CheckProcess.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTrialsHint[] = "'tavix-settings trials' shows it";

// "t-3f9a": short enough to be typed.
std::string MakeName() {
  uint16_t number = 0;
  if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
    throw Failure(kExitNotApplied, std::string("failed to make up a name: ") + std::strerror(errno));
  char name[16];
  std::snprintf(name, sizeof name, "t-%04x", static_cast<unsigned>(number));
  return name;
}

// One that no trial has: a change with the name of another one would become a part of it.
std::string MakeFreeName(Session& session) {
  const core::IniFile trials = AskOrFail(session, "trial", Session::Effect::kNoSettings);
  std::string name = MakeName();
  while (trials.HasGroup(name)) name = MakeName();
  return name;
}

// "goes", "go"; "it", "them".
struct Grammar {
  const char* goes;
  const char* it;
};

Grammar GrammarFor(size_t count) {
  return count == 1 ? Grammar{"goes", "it"} : Grammar{"go", "them"};
}

// A change on trial, from the moment when it is armed.
class Trial {
 public:
  // context: outlives this. Connects.
  Trial(Context& context, const TrialOptions& options)
      : _context(context), _options(options), _name(MakeFreeName(context.GetSession())) {
    context.GetSession().SetTrial(GetSeconds(), _name);
  }

  // Behind a change that failed. What it has done by then goes back now, as half a change is none.
  [[noreturn]] void Fail(const Failure& failure) {
    if (failure.GetCode() == kExitNoServer)
      throw Failure(kExitNoServer, failure.what(),
                    "it is unknown whether the change was made; if it was, it goes back in " + ShowSeconds() + ": " +
                        "'tavix-settings trials' shows it as " + _name);
    if (failure.GetCode() == kExitNotApplied) RequireArmed();
    TrialAnswer answer;
    try {
      answer = AskForTrial(_context.GetSession(), "revert", _name);
    } catch (const Failure&) {
      throw Failure(failure.GetCode(), failure.what(),
                    "what was made of the change goes back in " + ShowSeconds() + ": " + kTrialsHint + " as " + _name);
    }
    const std::string more = failure.GetHint().empty() ? "" : "\nhint: " + failure.GetHint();
    if (answer.trial)
      throw Failure(failure.GetCode(), failure.what(), "what was made of the change is taken back" + more);
    throw Failure(failure);
  }

  // Behind a change that was made.
  int Finish() {
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(GetSeconds());
    RequireArmed();
    const TrialAnswer answer = AskForTrial(_context.GetSession(), "trial", _name);
    if (!answer.trial || answer.trial->settings.empty()) {
      _context.GetConsole().Say("nothing is on trial: there was nothing to change");
      return kExitDone;
    }
    _trial = *answer.trial;
    Announce(answer.trial->settings.size());
    return _options.hasCheck ? Check(limit) : kExitDone;
  }

 private:
  unsigned GetSeconds() const { return static_cast<unsigned>(_options.seconds); }
  std::string ShowSeconds() const { return std::to_string(GetSeconds()) + " s"; }

  // A change whose trial can't be armed is not made, which does not show where it would change nothing.
  void RequireArmed() const {
    const std::string refusal = _context.GetSession().TakeRefusal();
    if (refusal.rfind("trial:", 0) == 0) throw Failure(kExitNotApplied, "not applied: " + SpellValue(refusal));
  }

  void Announce(size_t count) const {
    const Grammar grammar = GrammarFor(count);
    std::string line =
        "on trial as " + _name + ": " + Count(count, "setting") + ", " + grammar.goes + " back in " + ShowSeconds();
    if (_options.hasCheck) {
      line += " unless this succeeds: " + SpellValue(_options.check);
    } else {
      line += std::string("; keep ") + grammar.it + ": " + ConfirmCommand();
    }
    _context.GetConsole().Say(line);
  }

  std::string ConfirmCommand() const {
    const std::string& server = _context.GetOptions().server;
    return "tavix-settings " + (server.empty() ? "" : "-s " + QuoteForShell(server) + " ") + "confirm " + _name;
  }

  int Check(Clock::time_point limit) {
    _context.GetConsole().Flush();
    const CheckOutcome outcome = RunCheck(_options.check, {{"TAVIX_TRIAL", _name}}, limit);
    if (outcome.HasSucceeded()) return Confirm();
    if (outcome.end == CheckOutcome::End::kInterrupted) FailInterrupted(outcome.signal);
    const std::string reason = outcome.end == CheckOutcome::End::kTimedOut
                                   ? "the check did not end within " + ShowSeconds()
                                   : "the check ended with status " + std::to_string(outcome.status);
    Revert(reason);
  }

  // The check may have taken what the connection needs away; then another one may still work.
  TrialAnswer AskAgain(const char* word) {
    try {
      return AskForTrial(_context.GetSession(), word, _name);
    } catch (const Failure& failure) {
      if (failure.GetCode() != kExitNoServer) throw;
    }
    return AskForTrial(_context.Reconnect(), word, _name);
  }

  int Confirm() {
    TrialAnswer answer;
    try {
      answer = AskAgain("confirm");
    } catch (const Failure& failure) {
      if (failure.GetCode() != kExitNoServer) throw;
      throw Failure(
          kExitNoServer, failure.what(),
          "it is unknown whether " + _name + " was confirmed; otherwise it goes back by itself: " + kTrialsHint);
    }
    if (!answer.trial || answer.trial->state != "confirmed")
      throw Failure(kExitReverted, "reverted " + _name + ": it went back before the check ended");
    _context.GetConsole().Say("confirmed " + _name + ": " + Count(_trial.settings.size(), "setting"));
    return kExitDone;
  }

  [[noreturn]] void Revert(const std::string& reason) {
    TrialAnswer answer;
    try {
      answer = AskAgain("revert");
    } catch (const Failure& failure) {
      if (failure.GetCode() != kExitNoServer) throw;
      throw Failure(kExitReverted, reason + ", and the server can't be asked: " + failure.what(),
                    _name + " goes back by itself: " + kTrialsHint);
    }
    if (answer.trial && answer.trial->state == "confirmed")
      throw Failure(kExitNo, reason + ", but somebody has confirmed " + _name);
    throw Failure(kExitReverted,
                  reason + "; " + (answer.trial ? DescribeReverted(_trial, *answer.trial) : "reverted " + _name));
  }

  // Ends as the signal would have.
  [[noreturn]] void FailInterrupted(int signal) const {
    throw Failure(static_cast<ExitCode>(128 + signal),
                  "interrupted: " + _name + " is still on trial, and goes back by itself",
                  "keep it: " + ConfirmCommand());
  }

  Context& _context;
  const TrialOptions& _options;
  const std::string _name;
  TrialState _trial;  // behind the change
};

int MakeTried(Context& context, const Note& note, const TrialOptions& options, const std::function<Done()>& change) {
  RequireTrial(context.GetSession(), options);
  Trial trial(context, options);
  SetNote(context, note);
  Done done;
  try {
    done = change();
  } catch (const Failure& failure) {
    trial.Fail(failure);
  }
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
  if (done.isNothing) return kExitDone;
  if (done.isUnsaved) {
    context.GetConsole().Say("done: " + done.count);
  } else {
    ReportDone(context, done.verb, done.count);
  }
  return kExitDone;
}

}  // namespace tavix::programs::cli
