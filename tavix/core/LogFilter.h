#pragma once

#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {

enum LogLevel : int;  // Logger.h

// Decides whether a message is written. format: as it was given to the logger, the same pointer for every message of
// one place in the code. text: the line behind its level.
//
// Called on the thread that logs, with none of the log's locks held; it may log, which calls it again. Throws nothing.
using LogFilter = bool (*)(LogLevel level, const char* format, const std::string& text);

// Has every later message shown to the filter; null: none. For hosts that log what strangers cause.
TAVIX_DAEMON_EXPORT void SetLogFilter(LogFilter filter);

}  // namespace tavix::core
