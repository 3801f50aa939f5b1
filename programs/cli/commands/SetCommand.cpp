#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Note.h"
#include "programs/cli/commands/Trial.h"
#include "programs/cli/session/Missing.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Assignments.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  std::vector<std::string> conditions;
  bool isVolatile = false;
  bool isDryRun = false;
  bool isEmptyAllowed = false;
  bool isIfUnset = false;
  Note note;
  TrialOptions trial;
};

void PrintPlannedChanges(Context& context, const Options& options, const IniFile& condition, const IniFile& settings) {
  Session& session = context.GetSession();
  session.AllowNew();
  RefuseRestricted(session, NamesOf(settings));
  IniFile asked = condition;
  asked.MergeSettings(settings);
  const IniFile before = session.Get(NamesOf(asked));
  RequireHolds(before, condition);
  if (options.isIfUnset) RequireUnset(before, settings);
  IniFile after = before;
  after.MergeSettings(settings);
  PrintChanges(context.GetConsole(), context.GetOptions().output, FindChanges(before, after));
}

IniFile ParseSettings(Context& context, const std::vector<std::string>& words) {
  return ParseAssignments(words, [&context](const std::string& key) {
    try {
      return FindGroupOfKey(context.GetSession(), key, !context.GetOptions().local.empty());
    } catch (const Failure&) {
      return std::string();  // what is wrong with the words counts, not this
    }
  });
}

void RefuseVolatile(const Options& options, const IniFile& condition) {
  const auto refuse = [](const std::string& option) {
    throw Failure(kExitUsage,
                  "--volatile and " + option + " can't go together: a change with a condition is always saved");
  };
  if (options.trial.isGiven)
    throw Failure(kExitUsage, "--volatile and --try can't go together: what is on trial is always saved");
  if (options.isIfUnset) refuse("--if-unset");
  if (!condition.IsEmpty()) refuse("--if");
}

Done Write(Session& session, const Options& options, const IniFile& condition, const IniFile& settings) {
  if (options.isIfUnset) {
    MergeIfUnset(session, condition, settings);
  } else if (condition.IsEmpty()) {
    Merge(session, settings, options.isVolatile);
  } else {
    MergeIf(session, condition, settings);
  }
  Done done{"set", Count(CountSettings(settings), "setting")};
  done.isUnsaved = options.isVolatile;
  return done;
}

int Set(Context& context, const Options& options) {
  const IniFile settings = ParseSettings(context, options.words);
  const IniFile condition = ParseConditions(options.conditions, "--if");
  RefuseEmptyName(NamesOf(settings), options.isEmptyAllowed);
  RefuseEmptyName(NamesOf(condition), options.isEmptyAllowed);
  if (options.isVolatile) RefuseVolatile(options, condition);
  if (options.isDryRun) {
    PrintPlannedChanges(context, options, condition, settings);
    return kExitDone;
  }
  return MakeChange(context, options.note, options.trial,
                    [&] { return Write(context.GetSession(), options, condition, settings); });
}

}  // namespace

void AddSet(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("set", "Set one or many settings, in one step",
                                          [options](Context& context) { return Set(context, *options); });
  command
      .AddTexts("SETTING", options->words,
                "'[group]key=value', '[group]key' VALUE, GROUP KEY VALUE, or GROUP KEY=VALUE...")
      .Require();
  command.AddTexts("--if", options->conditions, "Only if this '[group]key=value' holds; may be repeated")
      .TakeOneWordEach();
  command.AddFlag("--if-unset", options->isIfUnset, "Only if none of these settings is set");
  command.AddFlag("--volatile", options->isVolatile, "Do not save: it lasts until the server ends");
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
  AddNote(command, options->note);
  AddTrial(command, options->trial);
}

}  // namespace tavix::programs::cli
