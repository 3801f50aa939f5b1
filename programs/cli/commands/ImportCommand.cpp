#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/ReadFile.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Import.h"

namespace tavix::programs::cli {

using core::IniFile;

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

// Such a text is what a command leaves that failed.
void RequireConfirmed(const Options& options, const Import& backup, const IniFile& before) {
  if (!options.replaces || options.isConfirmed || !backup.IsEmpty() || before.IsEmpty()) return;
  throw Failure(kExitUsage,
                std::string("a text without any ") + (options.words.empty() ? "group" : "of these groups") +
                    " would take " + Count(before.GetGroups().size(), "group") + " away: give --yes to do it",
                "--dry-run shows them");
}

int ShowDifferences(Context& context, const Import& backup) {
  const std::vector<Change> changes = backup.FindDifferences();
  PrintChanges(context.GetConsole(), context.GetOptions().output, changes);
  if (changes.empty()) context.GetConsole().Say("no differences");
  return kExitDone;
}

int RunImport(Context& context, const Options& options) {
  Session& session = context.GetSession();
  const std::string source = FindSource(options);
  const IniFile document = ReadDocument(source);
  const bool isFile = !context.GetOptions().local.empty();
  Import backup(session, document, source == "-" ? "standard input" : source,
                {ParseSelection(options.words), options.replaces, options.isUserLayer, isFile});
  if (options.isDryRun) return ShowDifferences(context, backup);
  ShowProgress(context);
  const Import::Result result = backup.Run([&](const IniFile& before) { RequireConfirmed(options, backup, before); });
  Console& console = context.GetConsole();
  console.ClearProgress();
  console.Say(result.changes.empty() ? "done: no differences" : "done: " + Count(result.changes.size(), "difference"));
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
      command.AddFlag("--replace", options->replaces, "Take away what the file lacks; restricted groups stay");
  command.AddFlag("--user", options->isUserLayer, "With --replace: take away only what users changed").Need(replace);
  command.AddFlag("-y,--yes", options->isConfirmed, "Do it even with a text that holds no group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
}

}  // namespace tavix::programs::cli
