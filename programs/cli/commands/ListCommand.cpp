#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

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

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

// The number of characters that a terminal shows.
size_t WidthOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// Prints groups as they come. The columns of rows that come together stand below each other: a store may be too large
// to wait for its widest name.
class GroupList {
 public:
  // layers: may be null. All outlive this.
  GroupList(Context& context, const Options& options, const Layers* layers)
      : _context(context), _options(options), _layers(layers) {}

  void Add(IniFile::const_iterator group) {
    _isEmpty = false;
    if (_context.PrintsJson()) {
      Print(_json.Add(json::array({Describe(group)})));
    } else if (_options.keys) {
      Print(ListKeys(group));
    } else {
      AddRow(group);
    }
  }

  void Finish() {
    PrintRows();
    if (_context.PrintsJson()) Print(_json.Finish());
  }

  bool IsEmpty() const { return _isEmpty; }

 private:
  struct Row {
    std::string name;
    std::string rest;
  };

  json Describe(IniFile::const_iterator group) const {
    json object = {{"group", NameToJson(group->first)}, {"count", group->second.size()}};
    if (_layers) object["origin"] = _layers->FindOrigin(group);
    if (_options.keys) {
      json& keys = object["keys"] = json::array();
      for (const auto& [key, value] : group->second) keys.push_back(NameToJson(key));
    }
    return object;
  }

  std::string ListKeys(IniFile::const_iterator group) const {
    const Console& console = _context.GetConsole();
    std::string text;
    for (const auto& [key, value] : group->second) {
      if (_layers) text += Padded(_layers->FindOrigin(group->first, key), 10) + "  ";
      text += console.Paint(Console::kGroup, "[" + SpellName(group->first) + "]") +
              console.Paint(Console::kKey, SpellKey(key)) + "\n";
    }
    return text;
  }

  void AddRow(IniFile::const_iterator group) {
    Row row{SpellName(group->first), std::to_string(group->second.size())};
    if (_layers) row.rest += std::string("  ") + _layers->FindOrigin(group);
    _width = std::max(_width, WidthOf(row.name));
    _rows.push_back(std::move(row));
    if (_rows.size() == kRowsTogether) PrintRows();
  }

  void PrintRows() {
    const Console& console = _context.GetConsole();
    const bool isBare = _context.GetOptions().output == Output::kValue;
    std::string text;
    for (const Row& row : _rows) {
      text += console.Paint(Console::kGroup, row.name);
      if (!isBare) text += std::string(_width - WidthOf(row.name) + 2, ' ') + row.rest;
      text += '\n';
    }
    _rows.clear();
    Print(text);
  }

  // What comes first is out at once: somebody may be waiting for it.
  void Print(const std::string& text) {
    if (text.empty()) return;
    _context.GetConsole().Print(text);
    if (std::exchange(_isFirst, false)) _context.GetConsole().Flush();
  }

  static constexpr size_t kRowsTogether = 100;

  Context& _context;
  const Options& _options;
  const Layers* const _layers;
  PrettyParts _json{"[]"};
  std::vector<Row> _rows;
  size_t _width = 0;  // of the widest name so far
  bool _isEmpty = true;
  bool _isFirst = true;  // nothing was printed
};

int List(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson, Output::kValue});
  const std::set<std::string> groups = ParseGroups(options.words);
  std::optional<Layers> layers;
  if (options.origin) layers.emplace(context.GetSession());
  GroupList list(context, options, layers ? &*layers : nullptr);
  MissingGroups missing(groups);
  context.GetSession().GetEach(groups, [&](const IniFile& part) {
    missing.Take(part.begin()->first);
    list.Add(part.begin());
  });
  list.Finish();
  return options.words.empty() ? kExitDone : ReportMissing(context, missing);
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
