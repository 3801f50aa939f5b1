#include "tavix/osa/Time.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <ctime>

#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Deadline;
using tavix::osa::kWaitForever;
using tavix::osa::TimeMonotonic;
using tavix::osa::TimeStruct;

int64_t Nanoseconds(const TimeStruct& time) {
  return time.seconds * 1000000000 + time.nanoseconds;
}

TEST(Time, MonotonicTimeNeverGoesBack) {
  TimeStruct last;
  TimeMonotonic(last);
  for (int i = 0; i < 10000; ++i) {
    TimeStruct now;
    TimeMonotonic(now);
    ASSERT_LE(Nanoseconds(last), Nanoseconds(now));
    ASSERT_TRUE(now.nanoseconds >= 0 && now.nanoseconds <= 999999999) << now.nanoseconds;
    last = now;
  }
}

TEST(Time, MonotonicTimeIsTheSystemsMonotonicClock) {
  timespec before{}, after{};
  TimeStruct now;
  clock_gettime(CLOCK_MONOTONIC, &before);
  TimeMonotonic(now);
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_LE(before.tv_sec * 1000000000 + before.tv_nsec, Nanoseconds(now));
  EXPECT_GE(after.tv_sec * 1000000000 + after.tv_nsec, Nanoseconds(now));
}

TEST(Deadline, WaitForeverNeverEnds) {
  const Deadline deadline(kWaitForever);
  EXPECT_TRUE(deadline.IsNever());
  EXPECT_EQ(deadline.GetPollTimeout(), -1);
}

TEST(Deadline, AllOnesWaitsForever) {
  EXPECT_TRUE(Deadline(static_cast<unsigned int>(-1)).IsNever());
  EXPECT_FALSE(Deadline(static_cast<unsigned int>(-2)).IsNever());
}

TEST(Deadline, ZeroHasPassedAtOnce) {
  const Deadline deadline(0);
  EXPECT_FALSE(deadline.IsNever());
  EXPECT_LE(deadline.GetEnd(), Deadline::Clock::now());
  EXPECT_EQ(deadline.GetPollTimeout(), 0);
}

TEST(Deadline, WhatIsLeftShrinksFromTheTimeGiven) {
  const Deadline deadline(60000);
  const int left = deadline.GetPollTimeout();
  EXPECT_GT(left, 0);
  EXPECT_LE(left, 60000);
  EXPECT_LE(deadline.GetPollTimeout(), left);
}

// Rounded down, a wait in poll(2) would end early and spin through the last millisecond.
TEST(Deadline, WhatIsLeftIsRoundedUp) {
  const Deadline deadline(2);
  while (const int left = deadline.GetPollTimeout()) ASSERT_GE(left, 1);
  EXPECT_GE(Deadline::Clock::now(), deadline.GetEnd());
}

TEST(Deadline, MoreThanPollCanTakeIsTheMostThatItCan) {
  EXPECT_EQ(Deadline(kWaitForever - 1).GetPollTimeout(), INT_MAX);
}

TEST(Deadline, UsesAClockThatNeverJumps) {
  EXPECT_TRUE(Deadline::Clock::is_steady);
}

}  // namespace
