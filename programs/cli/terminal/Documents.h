#pragma once

#include <string>

#include "programs/cli/terminal/Console.h"
#include "programs/cli/terminal/GlobalOptions.h"
#include "programs/common/client/Json.h"
#include "tavix/core/IniFile.h"

// Settings in each form of output.
namespace tavix::programs::cli {

// Settings text.
void PrintIni(Console& console, const core::IniFile& settings);

// Prints a document that comes in parts, in ascending order, as PrintAs prints it whole. What the first part
// holds is out at once: somebody may be waiting for it.
//
// Threads: one.
class DocumentPrinter {
 public:
  // console: outlives this. isSpaced: with an empty line between groups of settings text.
  DocumentPrinter(Console& console, Output output, bool isSpaced = false)
      : _console(console), _output(output), _isSpaced(isSpaced) {}

  void Add(const core::IniFile& part);

  // Prints the end, where there is one.
  void Finish();

  bool IsEmpty() const { return _isFirst; }

 private:
  Console& _console;
  const Output _output;
  const bool _isSpaced;
  bool _isFirst = true;
  PrettyParts _json{"{}"};
};

// One line "[group]key=value" for each setting; "[group]" for a group without any.
void PrintAssignments(Console& console, const core::IniFile& settings);

// Any form but kText.
void PrintAs(Console& console, Output output, const core::IniFile& settings);

// One setting on its line, with colors.
std::string PaintAssignment(const Console& console, const std::string& group, const std::string& key,
                            const std::string& value);

// A line with a label in front of a figure, and a time as such a figure.
void PrintFigure(Console& console, const std::string& label, const std::string& figure);
std::string ShowMilliseconds(double milliseconds);

// A command that does something at the same server, for a person to enter: "tavix-settings -s 'HOST' confirm t-3f9a".
std::string ShowCommand(const GlobalOptions& options, const std::string& words);

// "1 setting", "2 settings".
std::string Count(size_t count, const std::string& noun);

size_t CountSettings(const core::IniFile& settings);

}  // namespace tavix::programs::cli
