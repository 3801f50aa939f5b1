#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/ReadFile.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Backup.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::string file = "-";
  std::vector<std::string> words;
  bool isUserLayer = false;
};

// A restricted group counts when the file holds it: exports leave the others out.
IniFile ReadOther(Session& session, const std::set<std::string>& groups, bool isUserLayer, const IniFile& file) {
  size_t leftOut = 0;
  IniFile settings = ReadStore(session, groups, isUserLayer, leftOut);
  if (leftOut == 0) return settings;
  std::set<std::string> restricted;
  for (const auto& [group, keys] : file) {
    if (session.IsRestricted(group)) restricted.insert(group);
  }
  if (!restricted.empty()) settings.MergeSettings(session.Get(restricted));
  return settings;
}

int Diff(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  const SettingsFile file = ReadSettingsFile(options.file);
  const std::set<std::string> groups = FindSelection(file, options.words);
  const IniFile settings =
      options.isUserLayer ? SelectUserGroups(file.settings, groups) : SelectGroups(file.settings, groups);
  const std::vector<Change> changes =
      FindChanges(ReadOther(context.GetSession(), groups, options.isUserLayer, settings), settings);
  if (!changes.empty() || context.PrintsJson())
    PrintChanges(context.GetConsole(), context.GetOptions().output, changes);
  return changes.empty() ? kExitDone : kExitNo;
}

}  // namespace

void AddDiff(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("diff", "Compare a file with the store: - stands there, + in the file",
                                          [options](Context& context) { return Diff(context, *options); });
  command.AddText("FILE", options->file, "Settings as ini or JSON; '-' is standard input").Require();
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns to compare; all without any");
  command.AddFlag("--user", options->isUserLayer, "Compare with what users changed only");
}

}  // namespace tavix::programs::cli
