#pragma once

#include <cstddef>

#include "programs/server/options/Limits.h"

namespace tavix::daemon {

// Makes room for connections in the process: raises the soft limit of descriptors as far as it is of use and the hard
// one lets it, and has the kernel's table of descriptors grow for as many, up to 16,384. Returns limits with as many
// connections as there are descriptors for.
//
// loops: how many event loops there will be.
// Threads: to be called while there is one only. A table that grows later, beside other threads, has the call that
// needs it wait for all processors, for about 10 ms.
// Errors: a table that can't grow now grows later.
Limits MakeRoomForConnections(Limits limits, size_t loops) noexcept;

}  // namespace tavix::daemon
