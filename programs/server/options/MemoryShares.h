#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "programs/server/options/Limits.h"

namespace tavix::daemon {

// The bounds of memory, where no option gives them.

// What all clients, and the settings, may cost as shares of the memory: at least 4 MiB each, at most what "Limits" has.
// The bounds of one client stay, as one that is above the bound of all is never reached: the largest ends before.
Limits ShareMemory(uint64_t memoryBytes);

// As people read it: "512 MiB", "7.5 MiB".
std::string FormatSize(uint64_t bytes);

}  // namespace tavix::daemon
