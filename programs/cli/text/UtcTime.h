#pragma once

#include <chrono>
#include <string>

namespace tavix::programs::cli {

// A time as in RFC 3339, in UTC: with milliseconds, or without.
std::string ShowTime(std::chrono::system_clock::time_point time);
std::string ShowSeconds(std::chrono::system_clock::time_point time);

}  // namespace tavix::programs::cli
