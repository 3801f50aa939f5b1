#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Layers.h"

namespace tavix::programs::cli {

using core::IniFile;
using nlohmann::json;

namespace {

struct Options {
  std::vector<std::string> words;
  bool origin = false;
};

void PrintJson(Console& console, const IniFile& settings, const Layers& layers) {
  json document = json::object();
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    json& object = document[NameToJson(group->first).get<std::string>()] = json::object();
    for (const auto& [key, value] : group->second)
      object[NameToJson(key).get<std::string>()] = {{"value", ValueToJson(value)},
                                                    {"origin", layers.FindOrigin(group->first, key)}};
  }
  console.Print(Pretty(document));
}

// The origin stands in front: behind a value it would look like a part of it.
void PrintWithOrigin(Console& console, const IniFile& settings, const Layers& layers) {
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    IniFile one;
    if (group->second.empty()) one.MergeGroup(group);
    if (group->second.empty()) console.Print(std::string(layers.FindOrigin(group)) + "\t");
    PrintAssignments(console, one);
    for (const auto& [key, value] : group->second)
      console.Print(std::string(layers.FindOrigin(group->first, key)) + "\t" +
                    PaintAssignment(console, group->first, key, value) + "\n");
  }
}

int Show(Context& context, const Options& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  const IniFile settings = context.GetSession().Get(groups);
  Console& console = context.GetConsole();
  if (options.origin) {
    context.RequireOutput({Output::kJson});
    const Layers layers(context.GetSession());
    if (context.PrintsJson()) {
      PrintJson(console, settings, layers);
    } else {
      PrintWithOrigin(console, settings, layers);
    }
  } else if (context.GetOptions().output == Output::kText) {
    PrintIni(console, settings, true);
  } else {
    PrintAs(console, context.GetOptions().output, settings);
  }
  if (options.words.empty()) return kExitDone;
  MissingGroups missing(groups);
  missing.TakeAll(settings);
  return ReportMissing(context, missing);
}

}  // namespace

void AddShow(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("show", "Print settings, group by group",
                                          [options](Context& context) { return Show(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns; all without any");
  command.AddFlag("--origin", options->origin, "Tell the layer in front: default, user or restricted");
}

}  // namespace tavix::programs::cli
