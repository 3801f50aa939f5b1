#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/terminal/Confirmation.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/UserLayer.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  bool isConfirmed = false;
  bool isDryRun = false;
  bool isEmptyAllowed = false;
};

// The groups that users changed or deleted: those alone can differ from the defaults.
std::set<std::string> FindUserGroups(Session& session, const std::vector<std::string>& words) {
  UserLayer layer = UserLayer::From(session.GetUserSettings(), ParseSelection(words));
  layer.DropRestricted(session);
  std::set<std::string> found = NamesOf(layer.settings);
  found.insert(layer.deleted.begin(), layer.deleted.end());
  return found;
}

void RefuseNames(const Session& session, const std::set<std::string>& groups) {
  std::set<std::string> names;
  for (const std::string& group : groups) {
    if (group.find('*') == std::string::npos) names.insert(group);
  }
  RefuseRestricted(session, names);
}

// Only the server knows the defaults: what it did is told by what was there before and after.
int Reset(Context& context, const Options& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  RefuseEmptyName(groups, options.isEmptyAllowed);
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  RefuseNames(session, groups);
  Console& console = context.GetConsole();
  const std::set<std::string> changed = FindUserGroups(session, options.words);
  if (options.isDryRun) {
    for (const std::string& group : changed) console.Print(SpellName(group) + "\n");
    return kExitDone;
  }
  if (HasPattern(groups) && !options.isConfirmed)
    Confirm("a pattern", "reset " + Count(changed.size(), "group"), changed);
  IniFile before;
  IniFile after;
  session.RunAlone([&] {
    before = session.Get(groups);
    after = Restore(session, groups);
  });
  if (before.IsEmpty() && after.IsEmpty()) throw Failure(kExitNo, "no group matches, and no default does");
  PrintChanges(console, context.GetOptions().output, FindChanges(before, after));
  std::set<std::string> names = NamesOf(before);
  names.merge(NamesOf(after));
  ReportDone(context, "reset",
             Count(names.size(), "group") + " at " + (names.size() == 1 ? "its" : "their") + " defaults");
  return kExitDone;
}

}  // namespace

void AddReset(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("reset", "Put groups back to their defaults, and print what that changed",
                                          [options](Context& context) { return Reset(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns").Require();
  command.AddFlag("-y,--yes", options->isConfirmed, "Do not ask, even for a pattern");
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options->isDryRun, "Print the groups that users changed or deleted, and change nothing");
}

}  // namespace tavix::programs::cli
