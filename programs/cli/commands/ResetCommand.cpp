#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Removal.h"
#include "programs/cli/commands/Reports.h"
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

// The groups that users changed or deleted: those alone can differ from the defaults.
std::set<std::string> FindUserGroups(Session& session, const std::vector<std::string>& words) {
  UserLayer layer = UserLayer::From(session.GetUserSettings(), ParseSelection(words));
  layer.DropRestricted(session);
  std::set<std::string> found = NamesOf(layer.settings);
  found.insert(layer.deleted.begin(), layer.deleted.end());
  return found;
}

// Only the server knows the defaults: what it did shows in what was there before and after.
int Reset(Context& context, const RemovalOptions& options) {
  const std::set<std::string> groups = ReadGroups(context, options);
  Session& session = context.GetSession();
  Console& console = context.GetConsole();
  const std::set<std::string> changed = FindUserGroups(session, options.words);
  if (options.isDryRun) {
    for (const std::string& group : changed) console.Print(SpellName(group) + "\n");
    return kExitDone;
  }
  ConfirmPattern(options, "reset", groups, changed);
  IniFile before;
  IniFile after;
  session.RunAlone([&] {
    before = session.Get(groups);
    Restore(session, groups, [&](const IniFile& group) { after.MergeGroup(group.begin()); });
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
  const auto options = std::make_shared<RemovalOptions>();
  const CommandOptions command = line.Add("reset", "Put groups back to their defaults, and print what that changed",
                                          [options](Context& context) { return Reset(context, *options); });
  AddRemovalOptions(command, *options, "Print the groups that users changed or deleted, and change nothing");
}

}  // namespace tavix::programs::cli
