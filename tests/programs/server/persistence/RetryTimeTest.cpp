#include "programs/server/persistence/RetryTime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace tavix::test {

using daemon::RetryTime;

namespace {

long SecondsAfterAFailure(RetryTime& retry) {
  const RetryTime::Clock::time_point now = RetryTime::Clock::now();
  retry.OnFailure(now);
  return std::chrono::duration_cast<std::chrono::seconds>(retry.GetNext() - now).count();
}

}  // namespace

TEST(RetryTime, IsAtOnceBeforeAnythingFailed) {
  EXPECT_LE(RetryTime().GetNext(), RetryTime::Clock::now());
}

TEST(RetryTime, IsLaterAfterEachFailureUpToAMinute) {
  RetryTime retry;
  std::vector<long> seconds;
  for (int i = 0; i < 9; ++i) seconds.push_back(SecondsAfterAFailure(retry));
  EXPECT_THAT(seconds, testing::ElementsAre(1, 2, 4, 8, 16, 32, 60, 60, 60));
}

TEST(RetryTime, BeginsAnewAfterASuccess) {
  RetryTime retry;
  for (int i = 0; i < 9; ++i) retry.OnFailure(RetryTime::Clock::now());
  retry.OnSuccess();
  EXPECT_EQ(SecondsAfterAFailure(retry), 1);
}

}  // namespace tavix::test
