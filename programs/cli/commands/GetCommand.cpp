#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/session/Missing.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  std::string defaultValue;
  bool hasDefault = false;
  bool endsWithNul = false;
  bool endsWithNothing = false;
};

// What the targets select of the store.
struct Selection {
  IniFile settings;
  bool isComplete = true;
};

void SelectSetting(Session& session, const Target& target, const IniFile& all, const Options& options,
                   Selection& selection) {
  if (all.HasValue(target.group, *target.key)) {
    selection.settings.SetValue(target.group, *target.key, all.GetValue(target.group, *target.key));
  } else if (options.hasDefault) {
    selection.settings.SetValue(target.group, *target.key, options.defaultValue);
  } else {
    Console::Warn(DescribeMissingSetting(session, target.group, *target.key));
    selection.isComplete = false;
  }
}

void SelectGroups(Session& session, const Target& target, const IniFile& all, Selection& selection) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNameOrPattern(target.group);
  std::set<std::string> groups;
  matcher.GetMatchingGroups(all, groups);
  for (const std::string& group : groups) selection.settings.MergeSettings(all, group);
  if (!groups.empty()) return;
  Console::Warn(DescribeMissingGroup(session, target.group));
  selection.isComplete = false;
}

// Bare words alone, an even number, may be GROUP KEY in pairs.
bool MayBePairs(const std::vector<std::string>& words) {
  return words.size() > 2 && words.size() % 2 == 0 && std::all_of(words.begin(), words.end(), IsPlainName);
}

// They are when one of the pairs is set, or no group stands in the place of a key.
bool ArePairs(const std::vector<Target>& targets, const IniFile& all) {
  bool isGroup = false;
  for (size_t at = 0; at < targets.size(); at += 2) {
    if (all.HasValue(targets[at].group, targets[at + 1].group)) return true;
    isGroup = isGroup || all.HasGroup(targets[at + 1].group);
  }
  return !isGroup;
}

std::vector<Target> PairUp(const std::vector<Target>& targets) {
  std::vector<Target> pairs;
  for (size_t at = 0; at < targets.size(); at += 2) pairs.push_back({targets[at].group, targets[at + 1].group});
  return pairs;
}

// Makes pairs of targets that were meant so.
Selection Select(Session& session, const Options& options, std::vector<Target>& targets) {
  std::set<std::string> groups;
  for (const Target& target : targets) groups.insert(target.group);
  const IniFile all = session.Get(groups);
  if (MayBePairs(options.words) && ArePairs(targets, all)) targets = PairUp(targets);
  Selection selection;
  for (const Target& target : targets) {
    if (target.key) {
      SelectSetting(session, target, all, options, selection);
    } else {
      SelectGroups(session, target, all, selection);
    }
  }
  return selection;
}

void PrintOne(Context& context, const std::string& value, const Options& options) {
  Console& console = context.GetConsole();
  const bool isBare = context.GetOptions().output == Output::kValue || options.endsWithNul || options.endsWithNothing;
  std::string text = isBare ? console.ShowBareValue(value) : console.ShowValue(value);
  if (context.PrintsJson()) text = Compact(ValueToJson(value));
  if (options.endsWithNul) {
    text += '\0';
  } else if (!options.endsWithNothing) {
    text += '\n';
  }
  console.Print(text);
}

void PrintWithNuls(Console& console, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    for (const auto& [key, value] : keys) console.Print(console.ShowBareValue(value) + '\0');
  }
}

void PrintAll(Context& context, const std::vector<Target>& targets, const IniFile& settings, const Options& options) {
  const bool isOneGroup = targets.size() == 1 && !targets.front().IsPattern();
  const Output output = context.GetOptions().output;
  if (options.endsWithNul) {
    PrintWithNuls(context.GetConsole(), settings);
  } else if (output == Output::kText && !isOneGroup) {
    PrintAssignments(context.GetConsole(), settings);
  } else {
    PrintAs(context.GetConsole(), output, settings);
  }
}

int Get(Context& context, const Options& options) {
  std::vector<Target> targets = ParseTargets(options.words);
  const Selection selection = Select(context.GetSession(), options, targets);
  const Output output = context.GetOptions().output;
  const bool isBareValue = output == Output::kText || output == Output::kJson || output == Output::kValue;
  if (targets.size() == 1 && targets.front().key && isBareValue) {
    if (selection.isComplete)
      PrintOne(context, selection.settings.GetValue(targets.front().group, *targets.front().key), options);
  } else if (selection.isComplete || !selection.settings.IsEmpty()) {
    PrintAll(context, targets, selection.settings, options);
  }
  return selection.isComplete ? kExitDone : kExitNo;
}

}  // namespace

void AddGet(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("get", "Print a value; a group as ini; several as [group]key=value",
                                          [options](Context& context) { return Get(context, *options); });
  command.AddTexts("SETTING", options->words, "'[group]key', GROUP KEY, a group, or a '*' pattern").Require();
  command.AddText("--default", options->defaultValue, "What to print for a setting that is not set")
      .SetWhenGiven(options->hasDefault);
  command.AddFlag("-z,--null", options->endsWithNul, "End values with a NUL byte");
  command.AddFlag("-n,--no-newline", options->endsWithNothing, "End a value with nothing");
}

}  // namespace tavix::programs::cli
