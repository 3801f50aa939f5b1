#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

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

json DescribeWithOrigin(const IniFile& part, const Layers& layers) {
  const auto& [group, keys] = *part.begin();
  json document = json::object();
  json& object = document[NameToJson(group).get<std::string>()] = json::object();
  for (const auto& [key, value] : keys)
    object[NameToJson(key).get<std::string>()] = {{"value", ValueToJson(value)},
                                                  {"origin", layers.FindOrigin(group, key)}};
  return document;
}

// The origin stands in front: behind a value it would look like a part of it.
void PrintWithOrigin(Console& console, const IniFile& part, const Layers& layers) {
  const auto& [group, keys] = *part.begin();
  if (keys.empty()) {
    console.Print(std::string(layers.FindOrigin(part.begin())) + "\t");
    PrintAssignments(console, part);
  }
  for (const auto& [key, value] : keys)
    console.Print(std::string(layers.FindOrigin(group, key)) + "\t" + PaintAssignment(console, group, key, value) +
                  "\n");
}

// missing: takes what is found, here and below.
void ShowWithOrigin(Context& context, const std::set<std::string>& groups, MissingGroups& missing) {
  context.RequireOutput({Output::kJson});
  Console& console = context.GetConsole();
  const Layers layers(context.GetSession());
  PrettyParts parts("{}");
  bool isFirst = true;
  context.GetSession().GetEach(groups, [&](const IniFile& part) {
    missing.Take(part.begin()->first);
    if (context.PrintsJson()) {
      console.Print(parts.Add(DescribeWithOrigin(part, layers)));
    } else {
      PrintWithOrigin(console, part, layers);
    }
    if (std::exchange(isFirst, false)) console.Flush();
  });
  if (context.PrintsJson()) console.Print(parts.Finish());
}

void ShowPlainly(Context& context, const std::set<std::string>& groups, MissingGroups& missing) {
  DocumentPrinter printer(context.GetConsole(), context.GetOptions().output,
                          context.GetOptions().output == Output::kText);
  context.GetSession().GetEach(groups, [&](const IniFile& part) {
    missing.Take(part.begin()->first);
    printer.Add(part);
  });
  printer.Finish();
}

int Show(Context& context, const Options& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  MissingGroups missing(groups);
  if (options.origin) {
    ShowWithOrigin(context, groups, missing);
  } else {
    ShowPlainly(context, groups, missing);
  }
  return options.words.empty() ? kExitDone : ReportMissing(context, missing);
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
