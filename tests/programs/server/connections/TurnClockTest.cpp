#include "programs/server/connections/TurnClock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

namespace tavix::test {

namespace {

using daemon::TurnClock;

// Clocks that stand still but for what the test says.
class CostOfATurn : public testing::Test {
 protected:
  void SetUp() override {
    s_time = 1'000'000;
    s_work = 5'000;
    s_looks = 0;
  }

  // The thread works so long of that time, in microseconds.
  static void Pass(int64_t time, int64_t work) {
    s_time += time;
    s_work += work;
  }

  static TurnClock Make(TurnClock::Kind kind) {
    return TurnClock(kind, {[] { return s_time; },
                            [] {
                              ++s_looks;
                              return s_work;
                            }});
  }

  static inline int64_t s_time = 0;
  static inline int64_t s_work = 0;
  static inline int s_looks = 0;  // at the work
};

}  // namespace

TEST_F(CostOfATurn, IsTheTimeOfAShortOneWithoutALookAtTheWork) {
  TurnClock clock = Make(TurnClock::Kind::kWork);
  const int looks = s_looks;
  Pass(20, 5);
  EXPECT_EQ(clock.EndTurn(), 20u);
  Pass(TurnClock::kMaxShort, 5);
  EXPECT_EQ(clock.EndTurn(), static_cast<unsigned int>(TurnClock::kMaxShort));
  EXPECT_EQ(s_looks, looks);
}

TEST_F(CostOfATurn, IsTheWorkOfALongOne) {
  TurnClock clock = Make(TurnClock::Kind::kWork);
  Pass(10'000, 70);
  EXPECT_EQ(clock.EndTurn(), 70u);
  Pass(3'000, 2'900);
  EXPECT_EQ(clock.EndTurn(), 2'900u);
}

TEST_F(CostOfATurn, OfALongOneLeavesTheShortOnesBeforeItOut) {
  TurnClock clock = Make(TurnClock::Kind::kWork);
  Pass(30, 30);
  clock.EndTurn();
  Pass(40, 40);
  clock.EndTurn();
  Pass(10'000, 500);
  EXPECT_EQ(clock.EndTurn(), 500u);
  Pass(10'000, 600);
  EXPECT_EQ(clock.EndTurn(), 600u);
}

// The short ones did not work all of their time.
TEST_F(CostOfATurn, IsNeverNegative) {
  TurnClock clock = Make(TurnClock::Kind::kWork);
  Pass(60, 1);
  clock.EndTurn();
  Pass(10'000, 2);
  EXPECT_EQ(clock.EndTurn(), 0u);
}

TEST_F(CostOfATurn, IsTheTimeWhereTheWorkIsNotAskedFor) {
  TurnClock clock = Make(TurnClock::Kind::kPassed);
  Pass(10'000, 70);
  EXPECT_EQ(clock.EndTurn(), 10'000u);
  EXPECT_EQ(s_looks, 0);
}

TEST(TurnClock, KnowsTheWorkOfItsThread) {
  const auto readWork = [] {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
  };
  const int64_t begin = readWork();
  TurnClock clock(TurnClock::Kind::kWork);
  const int64_t made = readWork();
  while (readWork() - made < 1000) continue;
  const int64_t before = readWork();
  const unsigned int cost = clock.EndTurn();
  // The time that has passed bounds the cost, and is another clock's: its steps may make it less than the work.
  EXPECT_GE(cost, (before - made) / 2);
  EXPECT_LE(cost, readWork() - begin);
}

}  // namespace tavix::test
