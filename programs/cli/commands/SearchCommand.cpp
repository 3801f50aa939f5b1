#include <algorithm>
#include <cctype>
#include <memory>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::string text;
  std::vector<std::string> words;
  bool ignoresCase = false;
  bool keysOnly = false;
  bool groupsOnly = false;
};

bool AreEqual(char a, char b) {
  return a == b;
}

bool AreEqualLetters(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

size_t Find(const std::string& text, const std::string& part, bool ignoresCase) {
  const auto found =
      std::search(text.begin(), text.end(), part.begin(), part.end(), ignoresCase ? AreEqualLetters : AreEqual);
  return found == text.end() && !part.empty() ? std::string::npos : static_cast<size_t>(found - text.begin());
}

bool Matches(const Options& options, const std::string& text) {
  return Find(text, options.text, options.ignoresCase) != std::string::npos;
}

// The settings of a group where the text stands in the key or the value; all where it stands in the group's name.
IniFile FindAll(const IniFile& part, const Options& options) {
  const auto& [group, keys] = *part.begin();
  if (!options.keysOnly && Matches(options, group)) return part;
  IniFile found;
  if (options.groupsOnly) return found;
  for (const auto& [key, value] : keys) {
    if (Matches(options, key) || (!options.keysOnly && Matches(options, value))) found.SetValue(group, key, value);
  }
  return found;
}

// Paints the first place of the text in each part of the line.
std::string PaintMatch(const Console& console, const std::string& line, const Options& options) {
  const std::string part = SpellValue(options.text);
  const size_t at = Find(line, part, options.ignoresCase);
  if (at == std::string::npos || part.empty()) return line;
  return line.substr(0, at) + console.Paint(Console::kMatch, line.substr(at, part.size())) +
         line.substr(at + part.size());
}

void PrintFound(Context& context, const IniFile& found, const Options& options) {
  Console& console = context.GetConsole();
  for (const auto& [group, keys] : found) {
    if (options.groupsOnly || keys.empty())
      console.Print(PaintMatch(console, options.groupsOnly ? SpellName(group) : "[" + SpellName(group) + "]", options) +
                    "\n");
    if (options.groupsOnly) continue;
    for (const auto& [key, value] : keys)
      console.Print(PaintMatch(console, SpellAssignment(group, key, value), options) + "\n");
  }
}

int Search(Context& context, const Options& options) {
  const Output output = context.GetOptions().output;
  DocumentPrinter printer(context.GetConsole(), output);
  bool isFirst = true;
  context.GetSession().GetEach(ParseGroups(options.words), [&](const IniFile& part) {
    const IniFile found = FindAll(part, options);
    if (found.IsEmpty()) return;
    if (output != Output::kText) {
      printer.Add(found);
    } else {
      PrintFound(context, found, options);
    }
    if (std::exchange(isFirst, false)) context.GetConsole().Flush();
  });
  if (output != Output::kText) printer.Finish();
  return isFirst ? kExitNo : kExitDone;
}

}  // namespace

void AddSearch(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("search,grep", "Find text in names, keys and values",
                                          [options](Context& context) { return Search(context, *options); });
  command.AddText("TEXT", options->text, "What to look for, as it is").Require();
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns to look in; all without any");
  command.AddFlag("-i,--ignore-case", options->ignoresCase, "Take ASCII letters of either case as equal");
  const DeclaredOption keys = command.AddFlag("-k,--keys", options->keysOnly, "Look at keys only");
  command.AddFlag("-g,--groups", options->groupsOnly, "Look at groups' names only, and print those").Exclude(keys);
}

}  // namespace tavix::programs::cli
