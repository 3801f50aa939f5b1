#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/LogLevels.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::string group;
  std::string level;
  bool isGroupGiven = false;
  bool isCreated = false;
};

std::string Describe(const std::string& value) {
  const std::string name = NameOfLogLevel(value);
  return SpellValue(value) + (name.empty() ? "" : " " + name);
}

void PrintLevels(Context& context, const IniFile& levels) {
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [group, keys] : levels)
      object[NameToJson(group).get<std::string>()] = ValueToJson(keys.at(kLogLevelKey));
    console.Print(Pretty(object));
    return;
  }
  size_t width = 0;
  for (const auto& [group, keys] : levels) width = std::max(width, SpellName(group).size());
  for (const auto& [group, keys] : levels) {
    const std::string name = SpellName(group);
    console.Print(console.Paint(Console::kGroup, name) + std::string(width - name.size() + 2, ' ') +
                  Describe(keys.at(kLogLevelKey)) + "\n");
  }
}

// hint: what else the person may want.
IniFile RequireLevels(Session& session, const std::string& group, const std::string& hint) {
  const IniFile levels = ReadLogLevels(session, group);
  if (!levels.IsEmpty()) return levels;
  const std::set<std::string> known = NamesOf(ReadLogLevels(session, "*"));
  throw Failure(kExitNo,
                "'" + SpellName(group) + "' is no log group: it has no log.level" +
                    DidYouMean(group, {known.begin(), known.end()}),
                hint);
}

int ReadLevel(Context& context, const std::string& group) {
  const IniFile levels = RequireLevels(context.GetSession(), group, "");
  const bool isOne = group.find('*') == std::string::npos;
  if (isOne && context.GetOptions().output == Output::kText) {
    context.GetConsole().Print(Describe(levels.GetValue(group, kLogLevelKey)) + "\n");
  } else {
    PrintLevels(context, levels);
  }
  return kExitDone;
}

int SetLevel(Context& context, const Options& options) {
  const int level = ParseLogLevel(options.level);
  RefusePattern(options.group);
  Session& session = context.GetSession();
  session.RequireWritable();
  RefuseRestricted(session, {options.group});
  if (!options.isCreated) RequireLevels(session, options.group, "--create sets it for a program that has none yet");
  IniFile settings;
  settings.SetInt(options.group, kLogLevelKey, level);
  Merge(session, settings, false);
  ReportDone(context, "set", SpellName(options.group) + " " + Describe(std::to_string(level)));
  return kExitDone;
}

int LogLevel(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  if (options.isGroupGiven && options.group.empty())
    throw Failure(kExitUsage, "expected a log group, found an empty text");
  if (!options.isGroupGiven) {
    PrintLevels(context, ReadLogLevels(context.GetSession(), "*"));
    return kExitDone;
  }
  return options.level.empty() ? ReadLevel(context, options.group) : SetLevel(context, options);
}

}  // namespace

void AddLogLevel(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("log-level", "Print or set how much a program logs",
                                          [options](Context& context) { return LogLevel(context, *options); });
  command.AddText("GROUP", options->group, "A log group or '*' pattern; all without it")
      .SetWhenGiven(options->isGroupGiven);
  command.AddText("LEVEL", options->level, "error, warning, notice, information, trace, or a number from 0 to 8");
  command.AddFlag("--create", options->isCreated, "Set the level of a program that has none yet");
}

}  // namespace tavix::programs::cli
