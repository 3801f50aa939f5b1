#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/session/Missing.h"
#include "programs/cli/terminal/Confirmation.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
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

// The groups that names and patterns mean now. A name that means none is an error; a pattern passes over what is
// restricted, a name does not.
IniFile Select(Session& session, const std::set<std::string>& groups) {
  std::set<std::string> names;
  for (const std::string& group : groups) {
    if (group.find('*') == std::string::npos) names.insert(group);
  }
  RefuseRestricted(session, names);
  IniFile all = session.Get(groups);
  for (const std::string& name : names) {
    if (!all.HasGroup(name)) throw Failure(kExitNo, DescribeMissingGroup(session, name));
  }
  for (const std::string& name : NamesOf(all)) {
    if (session.IsRestricted(name)) all.RemoveGroup(name);
  }
  if (all.IsEmpty()) throw Failure(kExitNo, "no group matches that could be deleted");
  return all;
}

// What is sent are the names that were shown, never a pattern: groups that come in between stay, and so do defaults
// that a later version of the device brings.
int Delete(Context& context, const Options& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  RefuseEmptyName(groups, options.isEmptyAllowed);
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  const IniFile before = Select(session, groups);
  if (options.isDryRun) {
    PrintChanges(context.GetConsole(), context.GetOptions().output, FindChanges(before, IniFile()));
    return kExitDone;
  }
  const std::set<std::string> names = NamesOf(before);
  RefusePatterns(names);
  if (HasPattern(groups) && !options.isConfirmed) Confirm("a pattern", "delete " + Count(names.size(), "group"), names);
  Replace(session, names, IniFile());
  ReportDone(context, "deleted", Count(names.size(), "group") + " deleted");
  return kExitDone;
}

}  // namespace

void AddDelete(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("delete,rm", "Take groups away; their defaults do not come back",
                                          [options](Context& context) { return Delete(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns").Require();
  command.AddFlag("-y,--yes", options->isConfirmed, "Do not ask, even for a pattern");
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
}

}  // namespace tavix::programs::cli
