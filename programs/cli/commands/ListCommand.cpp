#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Layers.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;
using nlohmann::json;

namespace {

struct Options {
  std::vector<std::string> words;
  bool keys = false;
  bool origin = false;
};

void PrintJson(Context& context, const IniFile& settings, const Layers* layers, bool hasKeys) {
  json list = json::array();
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    json object = {{"group", NameToJson(group->first)}, {"count", group->second.size()}};
    if (layers) object["origin"] = layers->FindOrigin(group);
    if (hasKeys) {
      json& keys = object["keys"] = json::array();
      for (const auto& [key, value] : group->second) keys.push_back(NameToJson(key));
    }
    list.push_back(std::move(object));
  }
  context.GetConsole().Print(Pretty(list));
}

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

// The number of characters that a terminal shows.
size_t WidthOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

void PrintGroups(Context& context, const IniFile& settings, const Layers* layers) {
  Console& console = context.GetConsole();
  const bool isBare = context.GetOptions().output == Output::kValue;
  size_t width = 0;
  for (const auto& [group, keys] : settings) width = std::max(width, WidthOf(SpellName(group)));
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    const std::string name = SpellName(group->first);
    std::string text = console.Paint(Console::kGroup, name);
    if (!isBare) {
      text += std::string(width - WidthOf(name) + 2, ' ') + std::to_string(group->second.size());
      if (layers) text += std::string("  ") + layers->FindOrigin(group);
    }
    console.Print(text + "\n");
  }
}

void PrintKeys(Context& context, const IniFile& settings, const Layers* layers) {
  Console& console = context.GetConsole();
  for (const auto& [group, keys] : settings) {
    for (const auto& [key, value] : keys) {
      const std::string origin = layers ? Padded(layers->FindOrigin(group, key), 10) + "  " : std::string();
      console.Print(origin + console.Paint(Console::kGroup, "[" + SpellName(group) + "]") +
                    console.Paint(Console::kKey, SpellKey(key)) + "\n");
    }
  }
}

int List(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson, Output::kValue});
  const std::set<std::string> groups = ParseGroups(options.words);
  const IniFile settings = context.GetSession().Get(groups);
  std::optional<Layers> layers;
  if (options.origin) layers.emplace(context.GetSession());
  const Layers* const origin = layers ? &*layers : nullptr;
  if (context.PrintsJson()) {
    PrintJson(context, settings, origin, options.keys);
  } else if (options.keys) {
    PrintKeys(context, settings, origin);
  } else {
    PrintGroups(context, settings, origin);
  }
  if (options.words.empty()) return kExitDone;
  MissingGroups missing(groups);
  missing.TakeAll(settings);
  return ReportMissing(context, missing);
}

}  // namespace

void AddList(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("list,ls", "Print the groups, each with the number of its settings",
                                          [options](Context& context) { return List(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns; all without any");
  command.AddFlag("--keys", options->keys, "Print the settings' names instead, [group]key each");
  command.AddFlag("--origin", options->origin, "Tell the layer: default, user, mixed or restricted");
}

}  // namespace tavix::programs::cli
