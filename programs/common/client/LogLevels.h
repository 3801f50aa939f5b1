#pragma once

#include <string>
#include <vector>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs {

constexpr char kLogLevelKey[] = "log.level";

// Of the groups that hold a level, this key alone. groups: a name or a '*' pattern.
core::IniFile ReadLogLevels(Session& session, const std::string& groups);

// The names of log levels, as the system log knows them, and "trace" below.
std::vector<std::string> GetLogLevelNames();

// Empty when the value is no level.
std::string NameOfLogLevel(const std::string& value);

// A name, one of its usual short forms, or a number from 0 to 8. Throws Failure, kExitUsage.
int ParseLogLevel(const std::string& text);

}  // namespace tavix::programs
