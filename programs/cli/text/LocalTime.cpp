#include "programs/cli/text/LocalTime.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <optional>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

using std::chrono::seconds;
using std::chrono::system_clock;
using Duration = system_clock::duration;
using TimePoint = system_clock::time_point;

std::string WithoutBlanks(const std::string& text) {
  std::string rest;
  for (const char c : text) {
    if (c != ' ') rest += c;
  }
  return rest;
}

std::optional<seconds> FindUnit(const std::string& name) {
  struct Unit {
    const char* names[6];
    long long length;
  };
  constexpr Unit kUnits[] = {{{"s", "sec", "secs", "second", "seconds"}, 1},
                             {{"m", "min", "mins", "minute", "minutes"}, 60},
                             {{"h", "hour", "hours"}, 3600},
                             {{"d", "day", "days"}, 86400},
                             {{"w", "week", "weeks"}, 604800}};
  for (const Unit& unit : kUnits) {
    for (const char* known : unit.names) {
      if (known != nullptr && name == known) return seconds(unit.length);
    }
  }
  return std::nullopt;
}

// "10 min ago".
std::optional<TimePoint> ParseAgo(const std::string& text, TimePoint now) {
  const std::string words = WithoutBlanks(text);
  constexpr size_t kMaxDigits = 9;
  const size_t digits = std::min(words.find_first_not_of("0123456789"), words.size());
  const size_t ago = words.size() < 3 ? std::string::npos : words.size() - 3;
  if (digits == 0 || digits > kMaxDigits || ago == std::string::npos || digits > ago || words.substr(ago) != "ago")
    return std::nullopt;
  const std::optional<seconds> unit = FindUnit(words.substr(digits, ago - digits));
  if (!unit) return std::nullopt;
  return now - *unit * std::strtoll(words.c_str(), nullptr, 10);
}

// A date and a time of the day as they were written.
struct Parts {
  std::tm time{};
  const char* rest = nullptr;  // what stands behind them
  bool hasTime = false;
};

std::optional<Parts> ParseParts(const std::string& text, TimePoint now) {
  struct Form {
    const char* format;
    bool hasDate;
    bool hasTime;
  };
  constexpr Form kForms[] = {{"%Y-%m-%d %H:%M:%S", true, true},
                             {"%Y-%m-%dT%H:%M:%S", true, true},
                             {"%Y-%m-%d %H:%M", true, true},
                             {"%Y-%m-%dT%H:%M", true, true},
                             {"%Y-%m-%d", true, false},
                             {"%H:%M:%S", false, true},
                             {"%H:%M", false, true}};
  for (const Form& form : kForms) {
    Parts parts;
    const std::time_t today = system_clock::to_time_t(now);
    if (!form.hasDate) localtime_r(&today, &parts.time);
    parts.time.tm_sec = 0;
    parts.rest = strptime(text.c_str(), form.format, &parts.time);
    parts.hasTime = form.hasTime;
    if (parts.rest != nullptr) return parts;
  }
  return std::nullopt;
}

// ".25" behind the seconds.
std::optional<Duration> SkipFraction(const char*& rest) {
  if (*rest != '.') return std::nullopt;
  char* end = nullptr;
  const double fraction = std::strtod(rest, &end);
  if (end == rest + 1) return std::nullopt;
  rest = end;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(fraction));
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// "Z", or a distance from UTC such as "+01:00".
std::optional<seconds> ParseZone(const std::string& zone) {
  if (zone == "Z") return seconds(0);
  const bool isDistance = zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && IsDigit(zone[1]) &&
                          IsDigit(zone[2]) && zone[3] == ':' && IsDigit(zone[4]) && IsDigit(zone[5]);
  if (!isDistance) return std::nullopt;
  const int minutes = std::atoi(zone.substr(1, 2).c_str()) * 60 + std::atoi(zone.substr(4).c_str());
  return seconds(zone[0] == '-' ? -60 * minutes : 60 * minutes);
}

// A day that its month does not have would become one of the next.
std::optional<TimePoint> ToTime(std::tm parts, const std::optional<seconds>& zone) {
  const int day = parts.tm_mday;
  parts.tm_isdst = -1;
  const std::time_t time = zone ? timegm(&parts) : std::mktime(&parts);
  if (parts.tm_mday != day) return std::nullopt;
  return system_clock::from_time_t(time) - zone.value_or(seconds(0));
}

std::optional<TimePoint> ParseDate(const std::string& text, TimePoint now) {
  const std::optional<Parts> parts = ParseParts(text, now);
  if (!parts) return std::nullopt;
  const char* rest = parts->rest;
  const Duration fraction = SkipFraction(rest).value_or(seconds(1) - Duration(1));
  const std::optional<seconds> zone = ParseZone(rest);
  if (parts->hasTime ? *rest != '\0' && !zone : *parts->rest != '\0') return std::nullopt;
  const std::optional<TimePoint> time = ToTime(parts->time, zone);
  return time ? std::make_optional(*time + fraction) : std::nullopt;
}

}  // namespace

std::string ShowLocalTime(TimePoint time) {
  const auto sinceEpoch = static_cast<std::time_t>(std::chrono::floor<seconds>(time.time_since_epoch()).count());
  std::tm parts{};
  localtime_r(&sinceEpoch, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

TimePoint ParseTime(const std::string& text, TimePoint now) {
  std::optional<TimePoint> time = ParseAgo(text, now);
  if (!time) time = ParseDate(text, now);
  if (!time)
    throw Failure(kExitUsage, "'" + SpellValue(text) + "' is no time",
                  "try '2026-11-22 01:44', '2026-11-22T00:44:15Z', '01:44' or '10 min ago'");
  return *time;
}

}  // namespace tavix::programs::cli
