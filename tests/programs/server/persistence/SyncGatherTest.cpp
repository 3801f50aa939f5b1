#include "programs/server/persistence/SyncGather.h"

#include <gtest/gtest.h>

namespace tavix::test {

using daemon::SyncGather;
using Clock = SyncGather::Clock;
using std::chrono::microseconds;

namespace {

constexpr Clock::time_point kStart{std::chrono::hours(1)};
constexpr Clock::time_point kAtOnce{};
constexpr microseconds kSync{800};

// A sync that took so long, covered the changes up to "last", and ended when "written" were there. Returns when its
// output was sent.
Clock::time_point Sync(SyncGather& gather, uint64_t last, uint64_t written, microseconds time = kSync) {
  gather.OnBegun(kStart, last);
  gather.OnEnded(kStart + time, written);
  const Clock::time_point released = kStart + time + microseconds(40);
  gather.OnReleased(released);
  return released;
}

}  // namespace

TEST(SyncGather, FirstSyncBeginsAtOnce) {
  const SyncGather gather{{}};
  EXPECT_EQ(gather.FindBegin(1), kAtOnce);
}

TEST(SyncGather, NextSyncWaitsForAsManyChangesAsTheLastOneTookAlong) {
  SyncGather gather{{}};
  Sync(gather, 10, 10);
  EXPECT_GT(gather.FindBegin(19), kStart);
  EXPECT_EQ(gather.FindBegin(20), kAtOnce);
}

// Those that waited already come besides: else two halves of the clients would take turns for ever.
TEST(SyncGather, ChangesThatCameDuringTheSyncDoNotCount) {
  SyncGather gather{{}};
  Sync(gather, 5, 10);
  EXPECT_GT(gather.FindBegin(14), kStart);
  EXPECT_EQ(gather.FindBegin(15), kAtOnce);
}

TEST(SyncGather, WaitsForAnEighthOfTheLastSyncAtMost) {
  SyncGather gather{{}};
  const Clock::time_point released = Sync(gather, 10, 10);
  EXPECT_EQ(gather.FindBegin(11), released + kSync / 8);
}

TEST(SyncGather, ShortSyncIsFollowedAtOnce) {
  SyncGather gather{{}};
  const Clock::time_point released = Sync(gather, 10, 10, microseconds(300));
  EXPECT_EQ(gather.FindBegin(11), released);
}

TEST(SyncGather, LeavesTheNextSyncToALoopBehindAShortOneAlone) {
  SyncGather gather{{}};
  EXPECT_FALSE(gather.MayBeInBatch());
  Sync(gather, 10, 10, microseconds(1000));
  EXPECT_TRUE(gather.MayBeInBatch());
  Sync(gather, 20, 20, microseconds(1001));
  EXPECT_FALSE(gather.MayBeInBatch());
}

TEST(SyncGather, ChangesThatAnEarlierSyncCoveredDoNotCount) {
  SyncGather gather{{}};
  Sync(gather, 10, 12);
  Sync(gather, 12, 12);
  EXPECT_GT(gather.FindBegin(13), kStart);
  EXPECT_EQ(gather.FindBegin(14), kAtOnce);
}

}  // namespace tavix::test
