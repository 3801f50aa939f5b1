#include "programs/server/connections/LoopLoad.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace tavix::test {

namespace {

using daemon::LoopBurden;
using daemon::LoopLoad;

// A loop whose clocks stand still but for what the test says.
class LoadOfALoop : public testing::Test {
 protected:
  void SetUp() override {
    s_now = 1'000'000;
    s_work = 0;
  }

  // A round, and then a wait.
  void Work(uint32_t milliseconds) {
    load.BeginRound();
    s_now += milliseconds;
    s_work += int64_t{milliseconds} * 1000;
    load.EndRound();
  }
  static void Wait(uint32_t milliseconds) { s_now += milliseconds; }

  static inline uint32_t s_now = 0;
  static inline int64_t s_work = 0;
  LoopLoad load{{[] { return s_now; }, [] { return s_work; }}};
};

}  // namespace

TEST_F(LoadOfALoop, IsTheShareOfTheTimeThatItWorked) {
  Work(1);
  for (uint32_t passed = 0; passed <= 2 * LoopLoad::kWindow; passed += 10) {
    Work(3);
    Wait(7);
  }
  EXPECT_NEAR(load.GetPermille(), 300, 10);
}

TEST_F(LoadOfALoop, IsNothingOnceItHasWaitedForASecond) {
  for (uint32_t passed = 0; passed <= 2 * LoopLoad::kWindow; ++passed) Work(1);
  EXPECT_GT(load.GetPermille(), 900);
  Wait(2 * LoopLoad::kWindow);
  EXPECT_EQ(load.GetPermille(), 0);
}

TEST_F(LoadOfALoop, CountsNoWorkOfEarlierTimesOnceItIsWoken) {
  for (uint32_t passed = 0; passed < LoopLoad::kWindow / 2; ++passed) Work(1);
  Wait(100 * LoopLoad::kWindow);
  Work(1);
  EXPECT_LT(load.GetPermille(), 20);
}

TEST_F(LoadOfALoop, IsStuckWhileALongRoundLasts) {
  load.BeginRound();
  s_now += LoopLoad::kMaxShortRound;
  EXPECT_FALSE(load.IsStuck());
  ++s_now;
  EXPECT_TRUE(load.IsStuck());
  load.EndRound();
  EXPECT_FALSE(load.IsStuck());
}

TEST_F(LoadOfALoop, IsRightWhenTheClockStartsAgain) {
  s_now = UINT32_MAX - 100;
  Work(1);
  for (uint32_t passed = 0; passed <= 2 * LoopLoad::kWindow; passed += 10) {
    Work(5);
    Wait(5);
  }
  EXPECT_NEAR(load.GetPermille(), 500, 10);
}

TEST(LoopBurden, IsLessOfALoopThatIsNotStuck) {
  EXPECT_TRUE((LoopBurden{false, LoopLoad::kFull, 9}.IsLessThan({true, 0, 0})));
  EXPECT_FALSE((LoopBurden{true, 0, 0}.IsLessThan({false, LoopLoad::kFull, 9})));
}

TEST(LoopBurden, IsLessOfALoopThatWorkedLess) {
  EXPECT_TRUE((LoopBurden{false, 100, 9}.IsLessThan({false, 400, 0})));
  EXPECT_FALSE((LoopBurden{false, 400, 0}.IsLessThan({false, 100, 9})));
}

TEST(LoopBurden, IsLessOfALoopWithFewerConnectionsWhereBothWorkAboutAsMuch) {
  EXPECT_TRUE((LoopBurden{false, 240, 1}.IsLessThan({false, 10, 2})));
  EXPECT_FALSE((LoopBurden{false, 10, 2}.IsLessThan({false, 240, 1})));
  EXPECT_FALSE((LoopBurden{true, 10, 2}.IsLessThan({true, 10, 2})));
}

}  // namespace tavix::test
