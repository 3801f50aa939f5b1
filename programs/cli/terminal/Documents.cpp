#include "programs/cli/terminal/Documents.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

std::string PaintGroup(const Console& console, const std::string& group) {
  return console.Paint(Console::kGroup, "[" + SpellName(group) + "]");
}

void PrintShell(Console& console, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    for (const auto& [key, value] : keys) {
      if (value.find('\0') != std::string::npos)
        throw Failure(kExitNo, SpellSetting(group, key) + " holds a NUL byte, which no shell variable can");
      const std::string word = console.IsOutputTerminal() ? console.ShowBareValue(value) : value;
      console.Print(ShellVariable(group, key) + "=" + QuoteForShell(word) + "\n");
    }
  }
}

void PrintValues(Console& console, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    for (const auto& [key, value] : keys) console.Print(console.ShowBareValue(value) + "\n");
  }
}

}  // namespace

void PrintIni(Console& console, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    std::string text = PaintGroup(console, group) + "\n";
    for (const auto& [key, value] : keys)
      text += console.Paint(Console::kKey, SpellKey(key)) + "=" + SpellValue(value) + "\n";
    console.Print(text);
  }
}

void PrintAssignments(Console& console, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    if (keys.empty()) console.Print(PaintGroup(console, group) + "\n");
    for (const auto& [key, value] : keys) console.Print(PaintAssignment(console, group, key, value) + "\n");
  }
}

void PrintAs(Console& console, Output output, const IniFile& settings) {
  DocumentPrinter printer(console, output);
  if (!settings.IsEmpty()) printer.Add(settings);
  printer.Finish();
}

void DocumentPrinter::Add(const IniFile& part) {
  switch (_output) {
    case Output::kText:
    case Output::kIni:
      if (_isSpaced && !_isFirst) _console.Print("\n");
      PrintIni(_console, part);
      break;
    case Output::kJson:
      _console.Print(_json.Add(ToJson(part)));
      break;
    case Output::kShell:
      PrintShell(_console, part);
      break;
    case Output::kValue:
      PrintValues(_console, part);
  }
  if (std::exchange(_isFirst, false)) _console.Flush();
}

void DocumentPrinter::Finish() {
  if (_output == Output::kJson) _console.Print(_json.Finish());
}

std::string PaintAssignment(const Console& console, const std::string& group, const std::string& key,
                            const std::string& value) {
  return PaintGroup(console, group) + console.Paint(Console::kKey, SpellKey(key)) + "=" + SpellValue(value);
}

void PrintFigure(Console& console, const std::string& label, const std::string& figure) {
  constexpr size_t kWidth = 15;
  const size_t width = std::max(kWidth, label.size() + 2);
  console.Print(label + std::string(width - label.size(), ' ') + figure + "\n");
}

std::string ShowMilliseconds(double milliseconds) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f ms", milliseconds);
  return text;
}

std::string ShowCommand(const GlobalOptions& options, const std::string& words) {
  const std::string server = options.server.empty() ? "" : "-s " + QuoteForShell(options.server) + " ";
  return "tavix-settings " + server + words;
}

std::string Count(size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

size_t CountSettings(const IniFile& settings) {
  size_t count = 0;
  for (const auto& [group, keys] : settings) count += keys.size();
  return count;
}

}  // namespace tavix::programs::cli
