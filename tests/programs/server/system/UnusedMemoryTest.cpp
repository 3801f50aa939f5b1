#include "programs/server/system/UnusedMemory.h"

#include <gtest/gtest.h>

namespace tavix::test {

using daemon::FreedMemoryLimits;

namespace {

constexpr int kKilobyte = 1024;
constexpr int kMegabyte = 1024 * kKilobyte;
constexpr uint64_t kGigabyte = uint64_t{1024} * kMegabyte;

}  // namespace

TEST(FreedMemoryLimits, SmallDeviceKeepsAsLittleAsTheLibraryBeginsWith) {
  const FreedMemoryLimits limits = FreedMemoryLimits::Choose(kGigabyte / 16);
  EXPECT_EQ(limits.largeBlock, 128 * kKilobyte);
  EXPECT_EQ(limits.maxUnused, 256 * kKilobyte);
}

TEST(FreedMemoryLimits, AreSharesOfTheMemoryUpToWhatTheUsualRequestsNeed) {
  EXPECT_EQ(FreedMemoryLimits::Choose(2 * kGigabyte).largeBlock, kMegabyte);
  EXPECT_EQ(FreedMemoryLimits::Choose(2 * kGigabyte).maxUnused, 2 * kMegabyte);
  for (const uint64_t memory : {64 * kGigabyte, ~uint64_t{0}}) {
    EXPECT_EQ(FreedMemoryLimits::Choose(memory).largeBlock, 4 * kMegabyte);
    EXPECT_EQ(FreedMemoryLimits::Choose(memory).maxUnused, 32 * kMegabyte);
  }
}

}  // namespace tavix::test
