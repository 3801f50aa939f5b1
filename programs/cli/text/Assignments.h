#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

// Settings with values on the command line: "[group]key=value", "[group]key" VALUE, GROUP KEY VALUE, or GROUP
// KEY=VALUE... for several of one group.
namespace tavix::programs::cli {

// What the next word is.
enum class AssignmentPlace {
  kStart,  // a group or a bracketed word
  kKey,    // behind a group: KEY or KEY=VALUE
  kPair,   // behind KEY=VALUE: another one, or what kStart takes
  kValue,  // behind a key: the value, whatever it looks like
};

// The place behind "word", which stands at "place".
AssignmentPlace NextPlace(AssignmentPlace place, const std::string& word);

// The one group that has such a key; empty when there is none, several, or nobody knows.
using FindGroup = std::function<std::string(const std::string& key)>;

// Throws Failure, kExitUsage, for words that are no assignments: with the right form filled in where it is known what
// was meant. A VALUE "-" is read from standard input, less one line feed at its end.
// findGroup: asked for the group of a KEY=VALUE that stands alone; may be empty.
core::IniFile ParseAssignments(const std::vector<std::string>& words, const FindGroup& findGroup = nullptr);

// "[group]key=value" with everything in one word. An option's name says where it came from.
core::IniFile ParseConditions(const std::vector<std::string>& words, const std::string& option);

}  // namespace tavix::programs::cli
