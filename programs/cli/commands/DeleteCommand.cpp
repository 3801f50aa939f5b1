#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Removal.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/session/Missing.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

void RequireAll(Session& session, const std::set<std::string>& names, const IniFile& groups) {
  for (const std::string& name : names) {
    if (!groups.HasGroup(name)) throw Failure(kExitNo, DescribeMissingGroup(session, name));
  }
}

// The groups that names and patterns mean now. A name that means none is an error; a pattern passes over what is
// restricted.
IniFile Select(Session& session, const std::set<std::string>& groups) {
  IniFile all = session.Get(groups);
  RequireAll(session, WithoutPatterns(groups), all);
  for (const std::string& name : NamesOf(all)) {
    if (session.IsRestricted(name)) all.RemoveGroup(name);
  }
  if (all.IsEmpty()) throw Failure(kExitNo, "no group matches that could be deleted");
  return all;
}

// What is sent are the names that were shown, never a pattern: groups that come in between stay, and so do defaults
// that a later version of the device brings.
int Delete(Context& context, const RemovalOptions& options) {
  const std::set<std::string> groups = ReadGroups(context, options);
  Session& session = context.GetSession();
  const IniFile before = Select(session, groups);
  if (options.isDryRun) {
    PrintChanges(context.GetConsole(), context.GetOptions().output, FindChanges(before, IniFile()));
    return kExitDone;
  }
  const std::set<std::string> names = NamesOf(before);
  RefusePatterns(names);
  ConfirmPattern(options, "delete", groups, names);
  SetNote(context, options.note);
  Rewrite(session, names, [&](const IniFile& now) {
    RequireAll(session, names, now);
    return IniFile();
  });
  ReportDone(context, "deleted", Count(names.size(), "group") + " deleted");
  return kExitDone;
}

}  // namespace

void AddDelete(CommandLine& line) {
  const auto options = std::make_shared<RemovalOptions>();
  const CommandOptions command = line.Add("delete,rm", "Take groups away; their defaults do not come back",
                                          [options](Context& context) { return Delete(context, *options); });
  AddRemovalOptions(command, *options, "Print what would change, and change nothing");
}

}  // namespace tavix::programs::cli
