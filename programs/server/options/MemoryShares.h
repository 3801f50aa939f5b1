#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "programs/server/options/Limits.h"

namespace tavix::daemon {

// The bounds of memory, where no option gives them.

// What all clients may cost together, as a share of the memory: at least 4 MiB, at most what "Limits" has.
Limits ShareMemory(uint64_t memoryBytes);

// A client's bound that is above the bound of all becomes that: it would never be reached.
void BoundClientsByAll(Limits& limits);

// As people read it: "512 MiB", "7.5 MiB".
std::string FormatSize(uint64_t bytes);

}  // namespace tavix::daemon
