#pragma once

#include <vector>

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Changes.h"

// How what differs between two documents is shown.
namespace tavix::programs::cli {

// Lines with '-' for what goes and '+' for what comes; with kJson, an array of objects.
void PrintChanges(Console& console, Output output, const std::vector<Change>& changes);

// When a change is seen, and whether it is one: what is set at the start is none.
enum class Occasion { kStart, kChange };

// "[group]key: old -> new" on one line; with kJson, one object on one line, with the time and, at the start, "initial".
void PrintEvent(Console& console, Output output, const Change& change, Occasion occasion = Occasion::kChange);

}  // namespace tavix::programs::cli
