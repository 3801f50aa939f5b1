#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/TrialRequests.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedRevisions.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

// What becomes of changes on trial.
namespace tavix::programs::cli {

using core::IniFile;
using nlohmann::json;

namespace {

struct Options {
  std::string name;
};

struct Ending {
  TrialAnswer before;
  TrialAnswer after;
};

// word: "confirm" or "revert"; state: what the trial is then. Asked again after a lost answer, it is so already.
Ending Ask(Context& context, const std::string& word, const std::string& state, const std::string& name) {
  RequireKeptName(name, "trial");
  Session& session = context.GetSession();
  RequireTrials(session);
  Ending ending{AskForTrial(session, "trial", name), {}};
  if (ending.before.trial && ending.before.trial->state == state) return {ending.before, ending.before};
  try {
    ending.after = AskForTrial(session, word, name);
  } catch (const Failure& failure) {
    if (failure.GetCode() != kExitNoServer) throw;
    throw Failure(kExitNoServer, failure.what(),
                  "it is unknown what became of " + name + ": 'tavix-settings trials' shows it");
  }
  return ending;
}

[[noreturn]] void FailRefused(const TrialAnswer& answer) {
  const std::string refusal = SpellValue(answer.refusal);
  if (!answer.trial) throw Failure(kExitNo, refusal, "'tavix-settings trials' shows those there are");
  const bool isOver = answer.trial->IsPending() && answer.trial->seconds == "0";
  if (isOver || answer.trial->state == "reverted") throw Failure(kExitReverted, refusal);
  const bool isOthers = answer.trial->IsPending() && refusal.find("' belongs to user ") != std::string::npos;
  if (isOthers) throw Failure(kExitRefused, "refused: " + refusal);
  throw Failure(kExitNotApplied, "not applied: " + refusal);
}

int End(Context& context, const std::string& word, const std::string& state, const std::string& name) {
  const auto& [before, after] = Ask(context, word, state, name);
  if (!after.trial || after.trial->state != state) FailRefused(after);
  const TrialState& trial = *after.trial;
  const TrialState then = before.trial.value_or(trial);
  std::string text = name + " was " + state + " already";
  if (then.state != state)
    text = state == "reverted" ? DescribeReverted(then, trial)
                               : "confirmed " + name + ": " + Count(then.settings.size(), "setting");
  context.GetConsole().Say(text);
  return kExitDone;
}

int Confirm(Context& context, const Options& options) {
  return End(context, "confirm", "confirmed", options.name);
}

int Revert(Context& context, const Options& options) {
  return End(context, "revert", "reverted", options.name);
}

void PrintTrial(Console& console, AuthorNames& names, const TrialState& trial) {
  const std::string name = SpellName(trial.name);
  std::string line = name + "  " + SpellValue(trial.state);
  if (!trial.seconds.empty()) line += ", " + SpellValue(trial.seconds) + " s left";
  line += "  " + names.Find(trial.author);
  if (trial.revision != 0) line += "  revision " + std::to_string(trial.revision);
  if (!trial.note.empty()) line += "  " + SpellValue(trial.note);
  console.Print(line + "\n");
  const size_t indent = name.size() + 2;
  PrintRecordedChanges(console, indent, trial.settings);
  for (const Change& change : trial.kept) {
    const std::string setting =
        change.key ? SpellSetting(change.group, *change.key) : "[" + SpellName(change.group) + "]";
    console.Print(std::string(indent, ' ') + setting + ": stays, as others have changed it since\n");
  }
}

int ListTrials(Context& context) {
  context.RequireOutput({Output::kJson});
  Session& session = context.GetSession();
  RequireTrials(session);
  const IniFile data = AskOrFail(session, "trial", Session::Effect::kNoSettings);
  Console& console = context.GetConsole();
  AuthorNames names(session.GetAddress());
  json all = json::array();
  for (const auto& [name, keys] : data) {
    const TrialState trial = TrialState::From(name, keys);
    if (context.PrintsJson()) {
      all.push_back(TrialToJson(trial));
    } else {
      PrintTrial(console, names, trial);
    }
  }
  if (context.PrintsJson()) console.Print(Pretty(all));
  if (data.IsEmpty()) console.Say("no trials");
  return kExitDone;
}

void AddEnding(CommandLine& line, const std::string& word, const std::string& description,
               int (*end)(Context&, const Options&)) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add(word, description, [options, end](Context& context) { return end(context, *options); });
  command.AddText("NAME", options->name, "The trial's name, as --try and 'trials' print it").Require();
}

}  // namespace

void AddConfirm(CommandLine& line) {
  AddEnding(line, "confirm", "Keep a change that is on trial", Confirm);
}

void AddRevert(CommandLine& line) {
  AddEnding(line, "revert", "Take a change that is on trial back now", Revert);
}

void AddTrials(CommandLine& line) {
  line.Add("trials", "Print the changes on trial, and what became of those of the last 10 minutes", ListTrials);
}

}  // namespace tavix::programs::cli
