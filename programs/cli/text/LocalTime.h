#pragma once

#include <chrono>
#include <string>

namespace tavix::programs::cli {

// A time for a person, in the machine's time zone: "2026-11-22 01:44:15".
std::string ShowLocalTime(std::chrono::system_clock::time_point time);

// What a person means by
//
//     2026-11-22 01:44:15     in the machine's time zone, as ShowLocalTime has it; the seconds, or all of the time of
//                             the day, may be missing, and a 'T' may take the place of the blank
//     2026-11-22T00:44:15Z    in UTC, with or without parts of a second; or with a distance from it, such as +01:00
//     01:44                   today, unless that is still to come
//     10 min ago              s, min, h, d, w or these words in full; blanks don't count
//
// The end of a second that is given without parts: what was shown with this time was not later. With a date it may be
// still to come, as the clock that it is compared with may be another one. now: what counts as the moment. Throws
// Failure, kExitUsage, for any other text, and for years before 1970 and behind 2261.
std::chrono::system_clock::time_point ParseTime(const std::string& text, std::chrono::system_clock::time_point now);

}  // namespace tavix::programs::cli
