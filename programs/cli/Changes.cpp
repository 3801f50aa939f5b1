#include "programs/cli/Changes.h"

#include <nlohmann/json.hpp>

#include "programs/cli/Json.h"
#include "programs/cli/Spelling.h"

namespace tavix::cli {

using core::IniFile;
using nlohmann::json;

namespace {

const IniFile::KeyMap& KeysOf(const IniFile& settings, const std::string& group) {
  static const IniFile::KeyMap kNone;
  const auto found = settings.GetGroups().find(group);
  return found == settings.end() ? kNone : found->second;
}

std::optional<std::string> ValueOf(const IniFile::KeyMap& keys, const std::string& key) {
  const auto found = keys.find(key);
  return found == keys.end() ? std::nullopt : std::make_optional(found->second);
}

void CompareKeys(const std::string& group, const IniFile::KeyMap& before, const IniFile::KeyMap& after,
                 std::vector<Change>& changes) {
  IniFile::KeyMap all = before;
  all.insert(after.begin(), after.end());
  for (const auto& [key, value] : all) {
    Change change{group, key, ValueOf(before, key), ValueOf(after, key)};
    if (change.before != change.after) changes.push_back(std::move(change));
  }
}

json ToJson(const Change& change) {
  json object = {{"group", NameToJson(change.group)}};
  if (!change.key) {
    object["event"] = change.hasCome ? "group added" : "group removed";
    return object;
  }
  object["key"] = NameToJson(*change.key);
  object["old"] = ValueToJson(change.before);
  object["new"] = ValueToJson(change.after);
  return object;
}

void PrintLine(Console& console, bool isAdded, const std::string& text) {
  console.Print(console.Paint(isAdded ? Console::kAdded : Console::kRemoved, (isAdded ? "+" : "-") + text) + "\n");
}

std::string ShowSide(const Console& console, const std::optional<std::string>& value, Console::Color color) {
  return value ? console.Paint(color, SpellValue(*value)) : console.Paint(Console::kDim, "(not set)");
}

}  // namespace

std::vector<Change> FindChanges(const IniFile& before, const IniFile& after) {
  std::vector<Change> changes;
  IniFile::GroupMap all = before.GetGroups();
  all.insert(after.begin(), after.end());
  for (const auto& [group, keys] : all) {
    const bool isGone = !after.HasGroup(group);
    const bool hasComeEmpty = !before.HasGroup(group) && KeysOf(after, group).empty();
    if (isGone || hasComeEmpty) changes.push_back({group, std::nullopt, std::nullopt, std::nullopt, hasComeEmpty});
    CompareKeys(group, KeysOf(before, group), KeysOf(after, group), changes);
  }
  return changes;
}

void PrintChanges(Console& console, Output output, const std::vector<Change>& changes) {
  if (output == Output::kJson) {
    json list = json::array();
    for (const Change& change : changes) list.push_back(ToJson(change));
    console.Print(Pretty(list));
    return;
  }
  for (const Change& change : changes) {
    if (!change.key) PrintLine(console, change.hasCome, "[" + SpellName(change.group) + "]");
    if (change.before) PrintLine(console, false, SpellAssignment(change.group, *change.key, *change.before));
    if (change.after) PrintLine(console, true, SpellAssignment(change.group, *change.key, *change.after));
  }
}

void PrintEvent(Console& console, Output output, const Change& change) {
  if (output == Output::kJson) {
    console.Print(Compact(ToJson(change)) + "\n");
    return;
  }
  const std::string name = console.Paint(Console::kGroup, "[" + SpellName(change.group) + "]");
  if (!change.key) {
    console.Print(name + (change.hasCome ? ": group added\n" : ": group removed\n"));
    return;
  }
  console.Print(name + console.Paint(Console::kKey, SpellKey(*change.key)) + ": " +
                ShowSide(console, change.before, Console::kRemoved) + " -> " +
                ShowSide(console, change.after, Console::kAdded) + "\n");
}

}  // namespace tavix::cli
