#pragma once

#include <vector>

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Json.h"

// How what differs between two documents is shown.
namespace tavix::programs::cli {

// Prints changes one by one: lines with '-' for what goes and '+' for what comes; with kJson, an array of objects.
//
// Threads: one.
class ChangePrinter {
 public:
  // console: outlives this.
  ChangePrinter(Console& console, Output output) : _console(console), _output(output) {}

  void Add(const Change& change);

  // Prints the end, where there is one.
  void Finish();

  bool IsEmpty() const { return _isEmpty; }

 private:
  Console& _console;
  const Output _output;
  bool _isEmpty = true;
  PrettyParts _json{"[]"};
};

// The same for a list.
void PrintChanges(Console& console, Output output, const std::vector<Change>& changes);

// When a change is seen, and whether it is one: what is set at the start is none.
enum class Occasion { kStart, kChange };

// "[group]key: old -> new" on one line; with kJson, one object on one line, with the time and, at the start, "initial".
void PrintEvent(Console& console, Output output, const Change& change, Occasion occasion = Occasion::kChange);

}  // namespace tavix::programs::cli
