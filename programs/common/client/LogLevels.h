#pragma once

#include <string>
#include <vector>

namespace tavix::programs {

// The names of log levels, as the system log knows them, and "trace" below.
std::vector<std::string> GetLogLevelNames();

// Empty when the value is no level.
std::string NameOfLogLevel(const std::string& value);

// A name, one of its usual short forms, or a number from 0 to 8. Throws Failure, kExitUsage.
int ParseLogLevel(const std::string& text);

}  // namespace tavix::programs
