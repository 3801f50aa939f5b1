#include "programs/cli/text/UtcTime.h"

#include <cstdio>
#include <ctime>

namespace tavix::programs::cli {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

std::string ShowDateAndTime(system_clock::time_point time) {
  const auto sinceEpoch = static_cast<std::time_t>(std::chrono::floor<seconds>(time.time_since_epoch()).count());
  std::tm parts{};
  gmtime_r(&sinceEpoch, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts)};
}

}  // namespace

std::string ShowTime(system_clock::time_point time) {
  const auto sinceSecond = time - std::chrono::floor<seconds>(time);
  char text[32];
  std::snprintf(text, sizeof text, ".%03dZ", static_cast<int>(std::chrono::floor<milliseconds>(sinceSecond).count()));
  return ShowDateAndTime(time) + text;
}

std::string ShowSeconds(system_clock::time_point time) {
  return ShowDateAndTime(time) + "Z";
}

}  // namespace tavix::programs::cli
