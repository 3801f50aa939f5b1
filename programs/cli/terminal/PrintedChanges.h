#pragma once

#include <vector>

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Changes.h"

// How what differs between two documents is shown.
namespace tavix::programs::cli {

// Lines with '-' for what goes and '+' for what comes; with kJson, an array of objects.
void PrintChanges(Console& console, Output output, const std::vector<Change>& changes);

// "[group]key: old -> new" on one line; with kJson, one object on one line.
void PrintEvent(Console& console, Output output, const Change& change);

}  // namespace tavix::programs::cli
