#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Note.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/session/Missing.h"
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
  bool isDryRun = false;
  bool isEmptyAllowed = false;
  Note note;
};

// What is left of the groups that the settings are in.
IniFile FindRest(Session& session, const IniFile& before, const std::vector<Target>& settings) {
  IniFile after = before;
  for (const Target& setting : settings) {
    if (!before.HasValue(setting.group, *setting.key))
      throw Failure(kExitNo, DescribeMissingSetting(session, setting.group, *setting.key));
    after[setting.group].erase(*setting.key);
  }
  return after;
}

// A key whose default must not come back can't be taken alone: the group is written again without it.
int Unset(Context& context, const Options& options) {
  const std::vector<Target> settings = ParseSettings(options.words);
  std::set<std::string> names;
  for (const Target& setting : settings) names.insert(setting.group);
  RefuseEmptyName(names, options.isEmptyAllowed);
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  RefuseRestricted(session, names);
  if (options.isDryRun) {
    const IniFile before = session.Get(names);
    PrintChanges(context.GetConsole(), context.GetOptions().output,
                 FindChanges(before, FindRest(session, before, settings)));
    return kExitDone;
  }
  SetNote(context, options.note);
  size_t count = 0;
  Rewrite(session, names, [&](const IniFile& before) {
    IniFile after = FindRest(session, before, settings);
    count = CountSettings(before) - CountSettings(after);
    return after;
  });
  ReportDone(context, "unset", Count(count, "setting") + " unset");
  return kExitDone;
}

}  // namespace

void AddUnset(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("unset", "Take settings away; their defaults do not come back",
                                          [options](Context& context) { return Unset(context, *options); });
  command.AddTexts("SETTING", options->words, "'[group]key' or GROUP KEY, any number of them").Require();
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
  AddNote(command, options->note);
}

}  // namespace tavix::programs::cli
