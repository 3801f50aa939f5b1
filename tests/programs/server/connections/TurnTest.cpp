#include "programs/server/connections/Turn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace tavix::test {

namespace {

using daemon::Turn;

Turn MakeTurn(unsigned long long lastServed, unsigned int cost) {
  Turn turn;
  turn.lastServed = lastServed;
  turn.cost = cost;
  return turn;
}

std::vector<unsigned long long> Order(std::vector<Turn> turns) {
  Turn::Order(turns, [](const Turn& turn) -> const Turn& { return turn; });
  std::vector<unsigned long long> order;
  for (const Turn& turn : turns) order.push_back(turn.lastServed);
  return order;
}

}  // namespace

TEST(Turn, OfThoseThatWaitedLongestComesFirstThenThatOfShortTurns) {
  EXPECT_THAT(Order({MakeTurn(9, 10), MakeTurn(8, 5000), MakeTurn(7, 500), MakeTurn(6, 20), MakeTurn(1, 5000),
                     MakeTurn(2, 10), MakeTurn(3, 5000), MakeTurn(4, Turn::kUnknown)}),
              testing::ElementsAre(1, 2, 3, 4, 6, 9, 7, 8));
}

TEST(Turn, OfNewConnectionsComesBeforeThoseThatWereServed) {
  EXPECT_THAT(Order({MakeTurn(5, 10), MakeTurn(0, Turn::kUnknown), MakeTurn(4, 10), MakeTurn(3, 10), MakeTurn(2, 9000),
                     MakeTurn(6, 10)}),
              testing::ElementsAre(0, 2, 3, 4, 5, 6));
}

TEST(Turn, CostsWhatItMostlyTakes) {
  Turn turn;
  for (int i = 0; i < 10; ++i) turn.NoteCost(30);
  EXPECT_EQ(turn.cost, 30u);
  turn.NoteCost(100'000);
  EXPECT_LT(turn.cost, 64u) << "once is an accident";
  for (int i = 0; i < 100; ++i) turn.NoteCost(100'000);
  EXPECT_GT(turn.cost, 90'000u);
  for (int i = 0; i < 100; ++i) turn.NoteCost(30);
  EXPECT_LT(turn.cost, 64u);
}

TEST(Turn, OfALongOneIsInAHigherClass) {
  EXPECT_EQ(MakeTurn(0, 0).GetCostClass(), MakeTurn(0, 63).GetCostClass());
  EXPECT_LT(MakeTurn(0, 63).GetCostClass(), MakeTurn(0, 200).GetCostClass());
  EXPECT_LT(MakeTurn(0, 1'000'000).GetCostClass(), MakeTurn(0, Turn::kUnknown).GetCostClass());
}

}  // namespace tavix::test
