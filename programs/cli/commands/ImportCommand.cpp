#include <memory>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Note.h"
#include "programs/cli/commands/Trial.h"
#include "programs/cli/terminal/Confirmation.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/ReadFile.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Import.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

namespace {

struct Options {
  std::string file;  // empty: standard input
  std::vector<std::string> words;
  bool replaces = false;
  bool isUserLayer = false;
  bool isConfirmed = false;
  bool isDryRun = false;
  Note note;
  TrialOptions trial;
};

constexpr size_t kWorthShowing = 256 * size_t{1024};

// Nobody types a backup: who forgot the file is not to sit and wait.
std::string FindSource(const Options& options) {
  if (!options.file.empty()) return options.file;
  if (Console::CanAsk()) throw Failure(kExitUsage, "expected a FILE, or a backup on standard input");
  return "-";
}

void ShowProgress(Context& context) {
  context.GetSession().SetProgress([&console = context.GetConsole()](size_t done, size_t all) {
    if (all >= kWorthShowing) console.ShowProgress("import: " + std::to_string(done * 100 / all) + " %");
  });
}

// What such a file lacks may stand in the part that is missing.
void RefuseCutOff(const Options& options, const SettingsFile& file) {
  if (options.replaces && file.isCutOff)
    throw Failure(kExitUsage, "'" + file.name + "' is a part of a backup: its last line is not '# End of backup'",
                  "make the backup again");
}

bool IsOnUserLayer(const Context& context, const Options& options) {
  return options.isUserLayer && context.GetOptions().local.empty();
}

// JSON has no comments: a backup of some groups looks like one of all.
void RefuseUncovered(const Context& context, const Options& options, const SettingsFile& file,
                     const Import::Gone& gone) {
  if (!file.isJson || !options.words.empty()) return;
  const size_t lacking = (IsOnUserLayer(context, options) ? gone.reset : gone.deleted).size();
  if (lacking > 0)
    throw Failure(
        kExitUsage,
        "'" + file.name + "' is JSON, which does not tell what it covers, and lacks " + Count(lacking, "group"),
        "name the groups that it was made of, or '*' for all");
}

// "reset 1 group that 'x.ini' lacks and delete 2 groups that it records as deleted".
std::string DescribeGone(const Import::Gone& gone, bool isUserLayer, const std::string& source) {
  const std::string deletion = "delete " + Count(gone.deleted.size(), "group") + " that ";
  if (!isUserLayer) return deletion + "'" + source + "' lacks";
  if (gone.reset.empty()) return deletion + "'" + source + "' records as deleted";
  const std::string reset = "reset " + Count(gone.reset.size(), "group") + " that '" + source + "' lacks";
  return gone.deleted.empty() ? reset : reset + " and " + deletion + "it records as deleted";
}

// A text without any group is what a command leaves that failed: nobody is asked whether that is meant.
void ConfirmGone(Context& context, const Options& options, const Import& backup, const std::string& source,
                 const Import::Gone& gone) {
  if (backup.IsEmpty())
    throw Failure(kExitUsage,
                  std::string("a text without any ") + (options.words.empty() ? "group" : "of these groups") +
                      " would take " + Count(gone.GetCount(), "group") + " away: give --yes to do it",
                  "--dry-run shows them");
  std::set<std::string> names = gone.deleted;
  names.insert(gone.reset.begin(), gone.reset.end());
  Confirm("--replace", DescribeGone(gone, IsOnUserLayer(context, options), source), names);
}

// What came while somebody was asked stays.
void RequireConfirmed(const std::set<std::string>& gone, const std::set<std::string>& confirmed) {
  const std::set<std::string> others = Without(gone, confirmed);
  if (!others.empty())
    throw Failure(kExitConditionFailed,
                  "condition failed: there is a group '" + SpellName(*others.begin()) + "' by now");
}

Import::Result ImportConfirmed(Context& context, const Options& options, Import& backup, const SettingsFile& file) {
  if (!options.replaces) return backup.Run([](const Import::Gone&) {});
  if (options.isConfirmed)
    return backup.Run([&](const Import::Gone& gone) {
      if (!backup.IsEmpty()) RefuseUncovered(context, options, file, gone);
    });
  const Import::Gone confirmed = backup.FindGone();
  if (!backup.IsEmpty()) RefuseUncovered(context, options, file, confirmed);
  if (!confirmed.IsEmpty()) ConfirmGone(context, options, backup, file.name, confirmed);
  return backup.Run([&](const Import::Gone& gone) {
    RequireConfirmed(gone.deleted, confirmed.deleted);
    RequireConfirmed(gone.reset, confirmed.reset);
  });
}

int ShowDifferences(Context& context, Import& backup) {
  ChangePrinter printer(context.GetConsole(), context.GetOptions().output);
  backup.FindDifferences([&](const Change& change) { printer.Add(change); });
  printer.Finish();
  if (printer.IsEmpty()) context.GetConsole().Say("no differences");
  return kExitDone;
}

Done ReportImported(Console& console, const Import::Result& result) {
  console.ClearProgress();
  Done done{"imported", Count(result.differences, "difference")};
  done.isNothing = result.differences == 0;
  if (done.isNothing) console.Say("done: no differences");
  return done;
}

int RunImport(Context& context, const Options& options) {
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  SettingsFile file = ReadSettingsFile(FindSource(options));
  RefuseCutOff(options, file);
  const bool isFile = !context.GetOptions().local.empty();
  const std::set<std::string> groups =
      options.replaces ? FindSelection(file, options.words) : ParseSelection(options.words);
  Import backup(session, std::move(file.settings), file.name, {groups, options.replaces, options.isUserLayer, isFile});
  if (options.isDryRun) return ShowDifferences(context, backup);
  RequireTrial(session, options.trial);
  ShowProgress(context);
  Import::Result result;
  const int code = MakeChange(context, options.note, options.trial, [&] {
    result = ImportConfirmed(context, options, backup, file);
    return ReportImported(context.GetConsole(), result);
  });
  if (result.copies > 0)
    context.GetConsole().Say("kept as user settings, which the backup lacks: " + Count(result.copies, "setting") +
                             ", at the defaults");
  return code;
}

}  // namespace

void AddImport(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("import", "Bring a backup back: set what it holds, or with --replace make the store hold nothing else",
               [options](Context& context) {
                 context.RequireOutput({Output::kJson});
                 return RunImport(context, *options);
               });
  command.AddText("FILE", options->file, "Settings as ini or JSON; standard input without it");
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns to bring back; all without any");
  const DeclaredOption replace =
      command.AddFlag("--replace", options->replaces, "Take away what the file lacks of the groups that it covers");
  command.AddFlag("--user", options->isUserLayer, "With --replace: take away only what users changed").Need(replace);
  command.AddFlag("-y,--yes", options->isConfirmed, "Do not ask before groups go that the file lacks");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
  AddNote(command, options->note);
  AddTrial(command, options->trial);
}

}  // namespace tavix::programs::cli
