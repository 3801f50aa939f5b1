#include "programs/server/connections/Places.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <list>

#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

using daemon::Places;

bool IsReadable(const Places& places) {
  pollfd freed{places.GetDescriptor(), POLLIN, 0};
  return poll(&freed, 1, 0) == 1;
}

}  // namespace

TEST(Places, AreTakenUpToTheMaximum) {
  Places places(2);
  EXPECT_TRUE(places.Take());
  EXPECT_TRUE(places.Take());
  EXPECT_FALSE(places.Take());
  places.Free();
  EXPECT_TRUE(places.Take());
}

TEST(Places, ReportAFreePlaceToThoseThatFoundNone) {
  Places places(1);
  ASSERT_TRUE(places.Take());
  EXPECT_FALSE(places.Take());
  EXPECT_FALSE(IsReadable(places));
  places.Free();
  EXPECT_TRUE(IsReadable(places));
  places.Acknowledge();
  EXPECT_FALSE(IsReadable(places));
}

TEST(Places, ReportNothingWhereNobodyWaits) {
  Places places(1);
  ASSERT_TRUE(places.Take());
  places.Free();
  EXPECT_FALSE(IsReadable(places));
}

TEST(Places, AreNeverMoreThanTheMaximumForManyThatTakeThem) {
  constexpr size_t kMax = 1;
  Places places(kMax);
  std::atomic<size_t> taken{0};
  std::atomic<size_t> most{0};
  std::list<BackgroundCall> calls;
  for (int i = 0; i < 4; ++i) {
    calls.emplace_back([&] {
      for (int round = 0; round < 10'000; ++round) {
        if (!places.Take()) continue;
        const size_t now = ++taken;
        if (now > most) most = now;
        --taken;
        places.Free();
      }
    });
  }
  for (BackgroundCall& call : calls) call.Join();
  EXPECT_LE(most, kMax);
  for (size_t i = 0; i < kMax; ++i) EXPECT_TRUE(places.Take());
  EXPECT_FALSE(places.Take());
}

TEST(Places, AreNeverMissedByWhoWaitsForOne) {
  constexpr int kRounds = 10'000;
  Places places(1);
  std::atomic<int> toFree{0};
  std::atomic<bool> ends{false};
  BackgroundCall freeing([&] {
    while (!ends) {
      if (toFree > 0 && toFree-- > 0) places.Free();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    while (!places.Take()) {
      pollfd freed{places.GetDescriptor(), POLLIN, 0};
      ASSERT_EQ(poll(&freed, 1, -1), 1);
      places.Acknowledge();
    }
    ++toFree;
  }
  ends = true;
  freeing.Join();
}

}  // namespace tavix::test
