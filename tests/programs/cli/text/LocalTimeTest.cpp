#include "programs/cli/text/LocalTime.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "programs/cli/text/UtcTime.h"
#include "programs/common/client/Failure.h"
#include "tests/support/Environment.h"

namespace tavix::test {

namespace {

using programs::Failure;
using programs::cli::ParseTime;
using programs::cli::ShowLocalTime;
using programs::cli::ShowTime;
using std::chrono::milliseconds;
using std::chrono::system_clock;

// A machine two hours in front of UTC, on 2026-11-22 at 01:44:15.250 of UTC.
class LocalTime : public testing::Test {
 protected:
  LocalTime() { tzset(); }
  ~LocalTime() override {
    _zone.reset();
    tzset();
  }

  static std::string Parse(const std::string& text) { return ShowTime(ParseTime(text, kNow)); }

  static constexpr system_clock::time_point kNow{milliseconds(1795311855250)};

 private:
  std::optional<ScopedEnvironment> _zone{std::in_place, "TZ", "AAA-2"};
};

}  // namespace

TEST_F(LocalTime, IsShownInTheZoneOfTheMachine) {
  EXPECT_EQ(ShowLocalTime(kNow), "2026-11-22 03:44:15");
  EXPECT_EQ(ShowLocalTime(system_clock::time_point(milliseconds(-1))), "1970-01-01 01:59:59");
}

TEST_F(LocalTime, DateIsReadInTheZoneOfTheMachine) {
  EXPECT_EQ(Parse("2026-11-22 03:44:15"), "2026-11-22T01:44:15.999Z");
  EXPECT_EQ(Parse("2026-11-22T03:44:15"), "2026-11-22T01:44:15.999Z");
  EXPECT_EQ(Parse("2026-11-22 03:44:15.25"), "2026-11-22T01:44:15.250Z");
  EXPECT_EQ(Parse("2026-11-22 03:44"), "2026-11-22T01:44:00.999Z");
  EXPECT_EQ(Parse("2026-11-22"), "2026-11-21T22:00:00.999Z");
  EXPECT_EQ(Parse("03:44:15"), "2026-11-22T01:44:15.999Z");
  EXPECT_EQ(Parse("01:44"), "2026-11-21T23:44:00.999Z");
}

TEST_F(LocalTime, ZoneThatIsGivenCounts) {
  EXPECT_EQ(Parse("2026-11-22T01:44:15Z"), "2026-11-22T01:44:15.999Z");
  EXPECT_EQ(Parse("2026-11-22T01:44:15.250Z"), "2026-11-22T01:44:15.250Z");
  EXPECT_EQ(Parse("2026-11-22T01:44:15+01:30"), "2026-11-22T00:14:15.999Z");
  EXPECT_EQ(Parse("2026-11-22 01:44-02:00"), "2026-11-22T03:44:00.999Z");
}

TEST_F(LocalTime, MayBeSoLongAgo) {
  EXPECT_EQ(Parse("10 min ago"), "2026-11-22T01:34:15.250Z");
  EXPECT_EQ(Parse("10min ago"), "2026-11-22T01:34:15.250Z");
  EXPECT_EQ(Parse("1 second ago"), "2026-11-22T01:44:14.250Z");
  EXPECT_EQ(Parse("2 h ago"), "2026-11-21T23:44:15.250Z");
  EXPECT_EQ(Parse("3 days ago"), "2026-11-19T01:44:15.250Z");
  EXPECT_EQ(Parse("1 w ago"), "2026-11-15T01:44:15.250Z");
}

TEST_F(LocalTime, PartsOfASecondMayHaveAnyNumberOfDigits) {
  EXPECT_EQ(Parse("2026-11-22 03:44:15.0625"), "2026-11-22T01:44:15.062Z");
  EXPECT_EQ(Parse("2026-11-22 03:44:15.99999999999999999999"), "2026-11-22T01:44:15.999Z");
}

TEST_F(LocalTime, IsStillToComeOnlyWithADate) {
  EXPECT_EQ(Parse("2026-11-22 03:45"), "2026-11-22T01:45:00.999Z");
  try {
    ParseTime("03:45", kNow);
    ADD_FAILURE();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.GetCode(), programs::kExitUsage);
    EXPECT_EQ(std::string(failure.what()), "'03:45' is still to come today");
    EXPECT_EQ(failure.GetHint(), "give the date as well, as in 2026-11-21 03:45:00");
  }
}

TEST_F(LocalTime, WhatIsNoTimeIsRefused) {
  for (const std::string text : {"",
                                 "x",
                                 "ago",
                                 "min ago",
                                 "10 ago",
                                 "10 miles ago",
                                 "9999999999 s ago",
                                 "10 min",
                                 "2026-02-30",
                                 "2026-13-01",
                                 "2026-11-22 25:00",
                                 "2026-11-22 03:44 x",
                                 "2026-11-22 03:44:15.",
                                 "2026-11-22Z",
                                 "2026-11-22T01:44+1",
                                 "2026-11-22 03:44:15.5e3",
                                 "2026-11-22 03:44:15.-5",
                                 "2026-11-22T01:44+24:00",
                                 "2026-11-22T01:44+01:60",
                                 "999999999 w ago",
                                 "3000 w ago",
                                 "1969-12-31",
                                 "2262-01-01",
                                 "9999-01-01"}) {
    try {
      ParseTime(text, kNow);
      ADD_FAILURE() << text;
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.GetCode(), programs::kExitUsage);
      EXPECT_EQ(std::string(failure.what()), "'" + text + "' is no time");
    }
  }
}

}  // namespace tavix::test
