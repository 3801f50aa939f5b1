#include <memory>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
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
  const bool isUserLayer = options.isUserLayer && context.GetOptions().local.empty();
  std::set<std::string> names = gone.deleted;
  names.insert(gone.reset.begin(), gone.reset.end());
  Confirm("--replace", DescribeGone(gone, isUserLayer, source), names);
}

// What came while somebody was asked stays.
void RequireConfirmed(const std::set<std::string>& gone, const std::set<std::string>& confirmed) {
  const std::set<std::string> others = Without(gone, confirmed);
  if (!others.empty())
    throw Failure(kExitConditionFailed,
                  "condition failed: there is a group '" + SpellName(*others.begin()) + "' by now");
}

Import::Result ImportConfirmed(Context& context, const Options& options, Import& backup, const std::string& source) {
  if (!options.replaces || options.isConfirmed) return backup.Run([](const Import::Gone&) {});
  const Import::Gone confirmed = backup.FindGone();
  if (!confirmed.IsEmpty()) ConfirmGone(context, options, backup, source, confirmed);
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

int RunImport(Context& context, const Options& options) {
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  SettingsFile file = ReadSettingsFile(FindSource(options));
  const bool isFile = !context.GetOptions().local.empty();
  const std::set<std::string> groups =
      options.replaces ? FindSelection(file, options.words) : ParseSelection(options.words);
  Import backup(session, std::move(file.settings), file.name, {groups, options.replaces, options.isUserLayer, isFile});
  if (options.isDryRun) return ShowDifferences(context, backup);
  ShowProgress(context);
  const Import::Result result = ImportConfirmed(context, options, backup, file.name);
  Console& console = context.GetConsole();
  console.ClearProgress();
  if (result.differences == 0) {
    console.Say("done: no differences");
  } else {
    ReportDone(context, "imported", Count(result.differences, "difference"));
  }
  if (result.copies > 0)
    console.Say("kept as user settings, which the backup lacks: " + Count(result.copies, "setting") +
                ", at the defaults");
  return kExitDone;
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
}

}  // namespace tavix::programs::cli
