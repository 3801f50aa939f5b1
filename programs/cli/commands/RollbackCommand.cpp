#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/HistoryWords.h"
#include "programs/cli/commands/Trial.h"
#include "programs/cli/terminal/Confirmation.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/terminal/PrintedRevisions.h"
#include "programs/cli/text/LocalTime.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  std::string time;
  bool hasTime = false;
  bool isConfirmed = false;
  bool isDryRun = false;
  Note note;
  TrialOptions trial;
};

// What the settings are to be like again.
struct Goal {
  std::string name;     // a revision, or '@' and a checkpoint; empty: by the time
  std::string pattern;  // empty: all

  std::string Describe() const {
    return name.front() == '@' ? "in checkpoint " + name.substr(1) : "after revision " + name;
  }

  // The words of a request.
  std::string ToLine() const { return pattern.empty() ? name : name + " " + pattern; }
};

bool IsRevision(const std::string& word) {
  constexpr size_t kMaxDigits = 20;
  return !word.empty() && word.size() <= kMaxDigits &&
         std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
}

Goal ParseGoal(const Options& options) {
  constexpr char kForms[] = "expected REVISION, @NAME or --at TIME, and at most one PATTERN behind it";
  const size_t names = options.hasTime ? 0 : 1;
  if (options.words.size() < names || options.words.size() > names + 1) throw Failure(kExitUsage, kForms);
  Goal goal;
  if (!options.hasTime) {
    goal.name = options.words.front();
    const bool isCheckpoint = !goal.name.empty() && goal.name.front() == '@';
    if (isCheckpoint) {
      RequireKeptName(goal.name.substr(1), "checkpoint");
    } else if (!IsRevision(goal.name)) {
      throw Failure(kExitUsage, "'" + SpellValue(goal.name) + "' is no revision", kForms);
    }
  }
  if (options.words.size() > names) goal.pattern = ParseHistoryPattern(options.words.back());
  return goal;
}

// The latest change that is not later.
std::string FindRevisionAt(Context& context, const std::string& text) {
  constexpr size_t kPage = 64;
  const auto limit = ParseTime(text, std::chrono::system_clock::now());
  HistoryReader history(context.GetSession(), "");
  std::optional<Revision> oldest;
  while (!history.HasEnded()) {
    for (const Revision& revision : history.ReadNext(kPage)) {
      if (revision.time > limit) {
        oldest = revision;
        continue;
      }
      context.GetConsole().Say("the last change up to then: revision " + std::to_string(revision.number) + ", of " +
                               ShowLocalTime(revision.time));
      return std::to_string(revision.number);
    }
  }
  throw Failure(kExitNotApplied, "not applied: no change is kept that is so old",
                oldest
                    ? "the oldest is revision " + std::to_string(oldest->number) + ", of " + ShowLocalTime(oldest->time)
                    : "the history is empty");
}

// request: "rollback", or "test-rollback". Nothing when there is no difference.
std::vector<Change> Ask(Session& session, const std::string& request, const Goal& goal, Session::Effect effect) {
  const IniFile data = AskOrFail(session, request + " " + goal.ToLine(), effect, "not applied: ");
  return data.IsEmpty() ? std::vector<Change>() : ReadRecordedChanges(data.begin()->second);
}

void Print(Context& context, const std::vector<Change>& changes) {
  if (context.PrintsJson()) {
    PrintChanges(context.GetConsole(), Output::kJson, changes);
  } else {
    PrintRecordedChanges(context.GetConsole(), 0, changes);
  }
}

void ConfirmRollback(const std::vector<Change>& changes) {
  std::set<std::string> groups;
  for (const Change& change : changes) groups.insert(change.group);
  Confirm("a rollback", "change " + Count(groups.size(), "group"), groups);
}

// Those that were not shown so.
std::vector<Change> FindOthers(const std::vector<Change>& changes, const std::vector<Change>& shown) {
  std::vector<Change> others;
  for (const Change& change : changes) {
    const bool isShown = std::any_of(shown.begin(), shown.end(), [&](const Change& other) {
      return std::tie(other.group, other.key, other.before, other.after) ==
             std::tie(change.group, change.key, change.before, change.after);
    });
    if (!isShown) others.push_back(change);
  }
  return others;
}

std::string SpellNameOf(const Change& change) {
  return change.key ? SpellSetting(change.group, *change.key) : "[" + SpellName(change.group) + "]";
}

// What came while somebody was asked stays.
void RequireShown(Session& session, const Goal& goal, const std::vector<Change>& shown) {
  const std::vector<Change> others =
      FindOthers(Ask(session, "test-rollback", goal, Session::Effect::kNoSettings), shown);
  if (!others.empty())
    throw Failure(kExitConditionFailed, "condition failed: " + SpellNameOf(others.front()) + " was changed by now");
}

// What came behind that.
void WarnOfOthers(const std::vector<Change>& changes, const std::vector<Change>& shown) {
  for (const Change& other : FindOthers(changes, shown))
    Console::Warn("others have just changed " + SpellNameOf(other) + ", which is brought back, too");
}

Done RollBack(Context& context, const Goal& goal, const std::optional<std::vector<Change>>& shown) {
  if (shown) RequireShown(context.GetSession(), goal, *shown);
  const std::vector<Change> changes = Ask(context.GetSession(), "rollback", goal, Session::Effect::kSettings);
  Done done{"rolled back", Count(changes.size(), "setting") + " as " + goal.Describe()};
  done.isNothing = changes.empty();
  done.print = [&context, changes, shown] {
    Print(context, changes);
    if (shown) WarnOfOthers(changes, *shown);
    if (changes.empty()) context.GetConsole().Say("done: no differences");
  };
  return done;
}

int Rollback(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  Goal goal = ParseGoal(options);
  Session& session = context.GetSession();
  if (!goal.pattern.empty()) RefuseRestricted(session, WithoutPatterns({goal.pattern}));
  RequireHistory(session);
  if (!options.isDryRun) RequireTrial(session, options.trial);
  if (options.hasTime) goal.name = FindRevisionAt(context, options.time);
  std::optional<std::vector<Change>> shown;
  if (options.isDryRun || !options.isConfirmed)
    shown = Ask(session, "test-rollback", goal, Session::Effect::kNoSettings);
  if (options.isDryRun) {
    Print(context, *shown);
    return kExitDone;
  }
  if (shown && !shown->empty()) ConfirmRollback(*shown);
  return MakeChange(context, options.note, options.trial, [&] { return RollBack(context, goal, shown); });
}

}  // namespace

void AddRollback(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("rollback", "Bring user settings back as they were, and print what that changed",
               [options](Context& context) { return Rollback(context, *options); });
  command.AddTexts("REVISION", options->words,
                   "A revision of 'log' or @CHECKPOINT, none with --at; behind it a group or '*' pattern");
  command.AddText("--at", options->time, "As they were then: '2026-11-22 01:44', '01:44', '10 min ago'")
      .SetWhenGiven(options->hasTime);
  command.AddFlag("-y,--yes", options->isConfirmed, "Do not ask");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
  AddNote(command, options->note);
  AddTrial(command, options->trial);
}

}  // namespace tavix::programs::cli
