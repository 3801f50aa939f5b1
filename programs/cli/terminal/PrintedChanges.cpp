#include "programs/cli/terminal/PrintedChanges.h"

#include <chrono>
#include <nlohmann/json.hpp>

#include "programs/cli/text/UtcTime.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using nlohmann::json;

namespace {

void PrintLine(Console& console, bool isAdded, const std::string& text) {
  console.Print(console.Paint(isAdded ? Console::kAdded : Console::kRemoved, (isAdded ? "+" : "-") + text) + "\n");
}

std::string ShowSide(const Console& console, const std::optional<std::string>& value, Console::Color color) {
  return value ? console.Paint(color, SpellValue(*value)) : console.Paint(Console::kDim, "(not set)");
}

}  // namespace

void ChangePrinter::Add(const Change& change) {
  _isEmpty = false;
  if (_output == Output::kJson) return _console.Print(_json.Add(json::array({ToJson(change)})));
  if (!change.key) PrintLine(_console, change.hasCome, "[" + SpellName(change.group) + "]");
  if (change.before) PrintLine(_console, false, SpellAssignment(change.group, *change.key, *change.before));
  if (change.after) PrintLine(_console, true, SpellAssignment(change.group, *change.key, *change.after));
}

void ChangePrinter::Finish() {
  if (_output == Output::kJson) _console.Print(_json.Finish());
}

void PrintChanges(Console& console, Output output, const std::vector<Change>& changes) {
  ChangePrinter printer(console, output);
  for (const Change& change : changes) printer.Add(change);
  printer.Finish();
}

void PrintEvent(Console& console, Output output, const Change& change, Occasion occasion) {
  if (output == Output::kJson) {
    json object = ToJson(change);
    object["time"] = ShowTime(std::chrono::system_clock::now());
    if (occasion == Occasion::kStart) object["initial"] = true;
    console.Print(Compact(object) + "\n");
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

}  // namespace tavix::programs::cli
