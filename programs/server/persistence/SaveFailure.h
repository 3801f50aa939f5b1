#pragma once

#include <exception>

namespace tavix::daemon {

// What to log when memory was refused to a save.
extern const char* const kOutOfMemory;

// What to log about a failure to save. Asks for no memory: that may be what failed.
const char* ReasonOf(const std::exception& exception);

}  // namespace tavix::daemon
