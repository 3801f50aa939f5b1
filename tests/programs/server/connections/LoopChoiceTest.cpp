#include "programs/server/connections/LoopChoice.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace tavix::test {

namespace {

using daemon::LoopBurden;
using daemon::LoopChoice;
using daemon::LoopLoad;

// Two loops that do nothing but have connections, unless the test says otherwise, and a clock that the test moves.
class ChoiceOfALoop : public testing::Test {
 protected:
  void SetUp() override { s_now = 1'000'000; }

  // A connection comes to the loop "caller". Returns which one gets it.
  size_t Connect(size_t caller = 0) {
    const size_t loop = choice.Choose(loops.size(), caller, [&](size_t index) { return loops[index]; });
    ++loops[loop].connections;
    return loop;
  }
  static void Wait(uint32_t microseconds) { s_now += microseconds; }

  static inline uint32_t s_now = 0;
  std::vector<LoopBurden> loops{{false, 0, 0}, {false, 0, 0}};
  LoopChoice choice{[] { return s_now; }};
};

}  // namespace

TEST_F(ChoiceOfALoop, IsOneForAllThatComeInABurst) {
  for (size_t i = 0; i < 100; ++i) {
    EXPECT_EQ(Connect(i % 2), 0u) << i;
    Wait(LoopChoice::kMaxGap);
  }
}

TEST_F(ChoiceOfALoop, IsTheOneWithFewerConnectionsForTheNextBurst) {
  for (int burst = 0; burst < 4; ++burst) {
    for (int i = 0; i < 10; ++i) Connect();
    Wait(LoopChoice::kMaxGap + 1);
  }
  EXPECT_EQ(loops[0].connections, 20u);
  EXPECT_EQ(loops[1].connections, 20u);
}

TEST_F(ChoiceOfALoop, IsOneForABurstOfManyBehindALongerGapToo) {
  for (uint32_t i = 0; i < LoopChoice::kMany; ++i) ASSERT_EQ(Connect(), 0u);
  for (int i = 0; i < 10; ++i) {
    Wait(LoopChoice::kMaxGapOfMany);
    EXPECT_EQ(Connect(), 0u);
  }
  Wait(LoopChoice::kMaxGapOfMany + 1);
  EXPECT_EQ(Connect(), 1u);
}

TEST_F(ChoiceOfALoop, CountsAnewForTheNextBurst) {
  for (uint32_t i = 0; i < LoopChoice::kMany; ++i) ASSERT_EQ(Connect(), 0u);
  Wait(LoopChoice::kMaxGapOfMany + 1);
  EXPECT_EQ(Connect(), 1u);
  loops[0].connections = 0;
  Wait(LoopChoice::kMaxGap + 1);
  EXPECT_EQ(Connect(), 0u);
}

TEST_F(ChoiceOfALoop, IsAnotherOneBehindALongerGapUntilABurstHasManyConnections) {
  for (uint32_t i = 0; i + 1 < LoopChoice::kMany; ++i) ASSERT_EQ(Connect(), 0u);
  Wait(LoopChoice::kMaxGap + 1);
  EXPECT_EQ(Connect(), 1u);
}

TEST_F(ChoiceOfALoop, IsAnotherOneOnceTheBurstsLoopIsStuck) {
  EXPECT_EQ(Connect(), 0u);
  loops[0].isStuck = true;
  EXPECT_EQ(Connect(), 1u);
}

TEST_F(ChoiceOfALoop, IsAnotherOneOnceTheBurstsLoopIsBusier) {
  EXPECT_EQ(Connect(), 0u);
  loops[0].permille = LoopLoad::kFull / 2;
  EXPECT_EQ(Connect(), 1u);
}

TEST_F(ChoiceOfALoop, SpreadsABurstThatIsLong) {
  for (size_t i = 0; i < 4 * LoopBurden::kMaxMoreConnections; ++i) {
    Connect();
    const size_t more = loops[0].connections - loops[1].connections;
    ASSERT_LE(more, LoopBurden::kMaxMoreConnections);
  }
  EXPECT_GT(loops[1].connections, LoopBurden::kMaxMoreConnections);
}

TEST_F(ChoiceOfALoop, IsTheCallersForOneThatComesWhenTheLastHasLeft) {
  EXPECT_EQ(Connect(0), 0u);
  --loops[0].connections;
  EXPECT_EQ(Connect(1), 1u);
}

TEST_F(ChoiceOfALoop, IsRightWhenTheClockStartsAgain) {
  s_now = UINT32_MAX;
  EXPECT_EQ(Connect(), 0u);
  Wait(LoopChoice::kMaxGap);
  EXPECT_EQ(Connect(), 0u);
  Wait(LoopChoice::kMaxGap + 1);
  EXPECT_EQ(Connect(), 1u);
}

}  // namespace tavix::test
