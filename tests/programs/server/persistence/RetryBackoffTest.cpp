#include "programs/server/persistence/RetryBackoff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace tavix::test {

using daemon::RetryBackoff;

namespace {

int64_t SecondsAfterAFailure(RetryBackoff& retry) {
  const RetryBackoff::Clock::time_point now = RetryBackoff::Clock::now();
  retry.OnFailure(now);
  return std::chrono::duration_cast<std::chrono::seconds>(retry.GetNextTry() - now).count();
}

}  // namespace

TEST(RetryBackoff, IsAtOnceBeforeAnythingFailed) {
  EXPECT_LE(RetryBackoff().GetNextTry(), RetryBackoff::Clock::now());
}

TEST(RetryBackoff, IsLaterAfterEachFailureUpToAMinute) {
  RetryBackoff retry;
  std::vector<long> seconds;
  for (int i = 0; i < 9; ++i) seconds.push_back(SecondsAfterAFailure(retry));
  EXPECT_THAT(seconds, testing::ElementsAre(1, 2, 4, 8, 16, 32, 60, 60, 60));
}

TEST(RetryBackoff, BeginsAnewAfterASuccess) {
  RetryBackoff retry;
  for (int i = 0; i < 9; ++i) retry.OnFailure(RetryBackoff::Clock::now());
  retry.OnSuccess();
  EXPECT_EQ(SecondsAfterAFailure(retry), 1);
}

}  // namespace tavix::test
