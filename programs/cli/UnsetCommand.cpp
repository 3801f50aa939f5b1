#include <CLI/CLI.hpp>
#include <memory>

#include "programs/cli/Changes.h"
#include "programs/cli/CommandLine.h"
#include "programs/cli/Commands.h"
#include "programs/cli/Documents.h"
#include "programs/cli/Failure.h"
#include "programs/cli/Missing.h"
#include "programs/cli/Words.h"
#include "programs/cli/Writes.h"

namespace tavix::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  bool isDryRun = false;
};

// The protocol has no way to take a single key: the group is written again without it.
int Unset(Context& context, const Options& options) {
  const std::vector<Target> settings = ParseSettings(options.words);
  std::set<std::string> groups;
  for (const Target& setting : settings) groups.insert(setting.group);
  Session& session = context.GetSession();
  RefuseRestricted(session, groups);
  const IniFile before = session.Get(groups);
  IniFile after = before;
  for (const Target& setting : settings) {
    if (!before.HasValue(setting.group, *setting.key))
      throw Failure(kExitNo, DescribeMissingSetting(session, setting.group, *setting.key));
    after[setting.group].erase(*setting.key);
  }
  if (options.isDryRun) {
    PrintChanges(context.GetConsole(), context.GetOptions().output, FindChanges(before, after));
    return kExitDone;
  }
  Replace(session, groups, after);
  context.GetConsole().Say("done: " + Count(CountSettings(before) - CountSettings(after), "setting") + " unset");
  return kExitDone;
}

}  // namespace

void AddUnset(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = line.Add("unset", "Take settings away; their defaults do not come back",
                               [options](Context& context) { return Unset(context, *options); });
  AddTexts(command, "SETTING", options->words, "'[group]key' or GROUP KEY, any number of them")->required();
  command.add_flag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
}

}  // namespace tavix::cli
