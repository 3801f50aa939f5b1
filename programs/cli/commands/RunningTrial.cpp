#include "programs/cli/commands/RunningTrial.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "programs/cli/terminal/CheckProcess.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedRevisions.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

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

bool IsLost(const Failure& failure) {
  return failure.GetCode() == kExitNoServer;
}

std::string WithMore(const std::string& hint, const Failure& failure) {
  return failure.GetHint().empty() ? hint : hint + "\nhint: " + failure.GetHint();
}

}  // namespace

RunningTrial::RunningTrial(Context& context, unsigned seconds, const std::optional<std::string>& check)
    : _context(context),
      _seconds(seconds),
      _check(check),
      _name(MakeFreeName(context.GetSession())),
      _interrupts(check ? InterruptReport::HangUp::kIgnored : InterruptReport::HangUp::kEnds) {
  _interrupts.Set("interrupted: what was made of the change goes back in " + ShowSeconds(),
                  std::string(kTrialsHint) + " as " + _name);
  context.GetSession().SetTrial(_seconds, _name);
}

std::string RunningTrial::ConfirmCommand() const {
  return ShowCommand(_context.GetOptions(), "confirm " + _name);
}

// A change whose trial can't be armed is not made, which does not show where it would change nothing. The reason is the
// connection's own: over another one there is none.
std::string RunningTrial::FindRefusal() const {
  try {
    const std::string refusal = _context.GetSession().TakeRefusal();
    return refusal.rfind("trial:", 0) == 0 ? "not applied: " + SpellValue(refusal) : "";
  } catch (const Failure&) {
    return "";  // what is asked next finds out, too
  }
}

// The change, or the check, may have taken what the connection needs away; then another one may still work.
TrialAnswer RunningTrial::AskAgain(const char* word) {
  try {
    return AskForTrial(_context.GetSession(), word, _name);
  } catch (const Failure& failure) {
    if (!IsLost(failure)) throw;
  }
  _isReconnected = true;
  return AskForTrial(_context.Reconnect(), word, _name);
}

void RunningTrial::Fail(const Failure& failure) {
  const std::string refusal = failure.GetCode() == kExitNotApplied ? FindRefusal() : "";
  TakeBack(refusal.empty() ? failure : Failure(kExitNotApplied, refusal));
}

void RunningTrial::TakeBack(const Failure& failure) {
  TrialAnswer answer;
  try {
    answer = AskAgain("revert");
  } catch (const Failure&) {
    if (IsLost(failure))
      throw Failure(kExitNoServer, failure.what(),
                    "it is unknown whether the change was made; if it was, it goes back in " + ShowSeconds() + ": " +
                        "'tavix-settings trials' shows it as " + _name);
    throw Failure(failure.GetCode(), failure.what(),
                  "what was made of the change goes back in " + ShowSeconds() + ": " + kTrialsHint + " as " + _name);
  }
  std::string hint = "what was made of the change is taken back";
  if (answer.trial && answer.trial->state == "confirmed")
    hint = "somebody has confirmed what was made of the change by then, as " + _name;
  if (answer.trial) throw Failure(failure.GetCode(), failure.what(), WithMore(hint, failure));
  if (!IsLost(failure)) throw Failure(failure);
  throw Failure(kExitNoServer, failure.what(), "nothing of the change was made, or it has gone back already");
}

void RunningTrial::Print(const std::function<void()>& print) {
  try {
    if (print) print();
    _context.GetConsole().Flush();
  } catch (const Failure& failure) {
    if (!_unprinted) _unprinted = failure;
  }
}

int RunningTrial::Finish() {
  const std::string refusal = FindRefusal();
  if (!refusal.empty()) TakeBack(Failure(kExitNotApplied, refusal));
  const Clock::time_point asked = Clock::now();
  const TrialAnswer answer = AskWhatIsOnTrial();
  int code = kExitDone;
  if (answer.trial) {
    _trial = *answer.trial;
    RequireNotReverted();
    Announce();
    PrintName();
    if (_check) code = Check(asked + FindTimeLeft());
  } else {
    code = ReportNothing();
  }
  if (_unprinted) throw Failure(*_unprinted);
  return code;
}

// Somebody may have given it more time, which is none of the check's.
std::chrono::seconds RunningTrial::FindTimeLeft() const {
  const std::chrono::seconds all(_seconds);
  if (_trial.seconds.empty()) return all;
  return std::min(all, std::chrono::seconds(std::strtoul(_trial.seconds.c_str(), nullptr, 10)));
}

TrialAnswer RunningTrial::AskWhatIsOnTrial() {
  try {
    return AskAgain("trial");
  } catch (const Failure& failure) {
    throw Failure(failure.GetCode(), failure.what(),
                  "the change is on trial as " + _name + ", and goes back in " + ShowSeconds() +
                      " unless it is confirmed: " + ConfirmCommand());
  }
}

// A server that was restarted meanwhile has reverted its trials, and knows their names no more.
int RunningTrial::ReportNothing() const {
  if (_isReconnected)
    throw Failure(kExitNoServer, "the connection was lost behind the change, and the server knows no " + _name,
                  "there was nothing to change, or the server has started anew, which takes the change back");
  _context.GetConsole().Say("nothing is on trial: there was nothing to change");
  return kExitDone;
}

void RunningTrial::RequireNotReverted() const {
  if (_trial.state == "reverted")
    throw Failure(kExitReverted, "reverted " + _name + ": its time was over, or somebody has reverted it");
}

void RunningTrial::Announce() const {
  const size_t count = _trial.settings.size();
  const Grammar grammar = GrammarFor(count);
  std::string line =
      "on trial as " + _name + ": " + Count(count, "setting") + ", " + grammar.goes + " back in " + ShowSeconds();
  std::string keep = std::string("; keep ") + grammar.it + ": " + ConfirmCommand();
  if (!_trial.IsPending()) {
    line = "somebody has confirmed " + _name + " already";
    keep = "";
  } else if (count == 0) {
    line = "on trial as " + _name + ": nothing that could go back, as others have changed all of it since";
    keep = "";
  }
  if (_check) keep = (keep.empty() ? "; the check: " : " unless this succeeds: ") + SpellValue(*_check);
  _context.GetConsole().Say(line + keep);
}

// For scripts, which should not have to read talk.
void RunningTrial::PrintName() {
  Print([this] {
    Console& console = _context.GetConsole();
    if (_context.PrintsJson()) {
      console.Print(Pretty(TrialToJson(_trial)));
    } else if (_context.GetOptions().quiet) {
      console.Print(_name + "\n");
    }
  });
}

int RunningTrial::Check(Clock::time_point limit) {
  using End = CheckOutcome::End;
  _interrupts.Set("interrupted: " + _name + " is still on trial, and goes back by itself",
                  "keep it: " + ConfirmCommand());
  const CheckOutcome outcome = RunCheck(*_check, {{"TAVIX_TRIAL", _name}}, limit);
  if (outcome.HasSucceeded()) return Confirm();
  if (outcome.end == End::kInterrupted) FailInterrupted(outcome.signal);
  std::string reason = "the check ended with status " + std::to_string(outcome.status);
  if (outcome.end == End::kTimedOut) reason = "the check did not end within " + ShowSeconds();
  if (outcome.end == End::kStopped) reason = "the check was stopped, as it asked the terminal";
  Revert(reason);
}

int RunningTrial::Confirm() {
  _interrupts.Set("interrupted: it is unknown whether " + _name + " was confirmed", kTrialsHint);
  TrialAnswer answer;
  try {
    answer = AskAgain("confirm");
  } catch (const Failure& failure) {
    if (!IsLost(failure)) throw;
    throw Failure(
        kExitNoServer, failure.what(),
        "it is unknown whether " + _name + " was confirmed; otherwise it goes back by itself: " + kTrialsHint);
  }
  if (!answer.trial || answer.trial->state != "confirmed")
    throw Failure(kExitReverted, "reverted " + _name + ": it went back before the check ended");
  _context.GetConsole().Say("confirmed " + _name + ": " + Count(_trial.settings.size(), "setting"));
  return kExitDone;
}

void RunningTrial::Revert(const std::string& reason) {
  TrialAnswer answer;
  try {
    answer = AskAgain("revert");
  } catch (const Failure& failure) {
    if (!IsLost(failure)) throw;
    throw Failure(kExitReverted, reason + ", and the server can't be asked: " + failure.what(),
                  _name + " goes back by itself: " + kTrialsHint);
  }
  if (answer.trial && answer.trial->state == "confirmed")
    throw Failure(kExitNo, reason + ", but somebody has confirmed " + _name);
  throw Failure(kExitReverted,
                reason + "; " + (answer.trial ? DescribeReverted(_trial, *answer.trial) : "reverted " + _name));
}

// Ends as the signal would have.
void RunningTrial::FailInterrupted(int signal) const {
  throw Failure(static_cast<ExitCode>(128 + signal),
                "interrupted: " + _name + " is still on trial, and goes back by itself",
                "keep it: " + ConfirmCommand());
}

}  // namespace tavix::programs::cli
