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
  const seconds distance = *unit * std::strtoll(words.c_str(), nullptr, 10);  // far from what seconds can count
  // Compared in seconds: nanoseconds can't count so far.
  const bool isBefore = distance <= std::chrono::duration_cast<seconds>(now.time_since_epoch());
  return isBefore ? std::make_optional(now - distance) : std::nullopt;
}

// A date and a time of the day as they were written.
struct Parts {
  std::tm time{};
  const char* rest = nullptr;  // what stands behind them
  bool hasDate = false;
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
    parts.hasDate = form.hasDate;
    parts.hasTime = form.hasTime;
    if (parts.rest != nullptr) return parts;
  }
  return std::nullopt;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// ".25" behind the seconds. Digits beyond the nanosecond are passed over.
std::optional<Duration> SkipFraction(const char*& rest) {
  if (*rest != '.' || !IsDigit(rest[1])) return std::nullopt;
  std::chrono::nanoseconds fraction(0);
  std::chrono::nanoseconds unit(100000000);
  for (++rest; IsDigit(*rest); ++rest, unit /= 10) fraction += (*rest - '0') * unit;
  return std::chrono::duration_cast<Duration>(fraction);
}

// "Z", or a distance from UTC such as "+01:00".
std::optional<seconds> ParseZone(const std::string& zone) {
  if (zone == "Z") return seconds(0);
  const bool isDistance = zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && IsDigit(zone[1]) &&
                          IsDigit(zone[2]) && zone[3] == ':' && IsDigit(zone[4]) && IsDigit(zone[5]);
  if (!isDistance) return std::nullopt;
  const int hours = std::atoi(zone.substr(1, 2).c_str());
  const int minutes = std::atoi(zone.substr(4).c_str());
  if (hours > 23 || minutes > 59) return std::nullopt;
  const seconds distance(60 * (60 * hours + minutes));
  return zone[0] == '-' ? -distance : distance;
}

// A day that its month does not have would become one of the next. The clock counts nanoseconds from 1970 to 2262.
std::optional<TimePoint> ToTime(std::tm parts, const std::optional<seconds>& zone) {
  constexpr int kMinYear = 1970;
  constexpr int kMaxYear = 2261;
  const int year = parts.tm_year + 1900;
  if (year < kMinYear || year > kMaxYear) return std::nullopt;
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
  if (!time) return std::nullopt;
  if (!parts->hasDate && *time > now)
    throw Failure(kExitUsage, "'" + SpellValue(text) + "' is still to come today",
                  "give the date as well, as in " + ShowLocalTime(*time - std::chrono::hours(24)));
  return *time + fraction;
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
