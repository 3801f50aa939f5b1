#include "programs/server/persistence/SyncWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"

namespace tavix::test {

using daemon::SyncWatch;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kTakesLong[] = "WARNING Test: 'user.ini': the disk takes long to sync the last changes";
constexpr char kSyncsAgain[] = "WARNING Test: 'user.ini': the disk syncs changes again";

class SyncWatchTest : public testing::Test {
 protected:
  // At that time, in seconds.
  bool Begin(int time) { return _watch.Begin(At(time)); }
  void Look(int time) { _watch.Look(At(time)); }

  std::vector<std::string> GetLog() {
    _log.Write();
    return _captured.GetMessages();
  }

  static SyncWatch::Clock::time_point At(int time) { return SyncWatch::Clock::time_point(seconds(1000 + time)); }

  const CapturedLog _captured;
  daemon::DeferredLog _log{*core::Logger::GetLogger("Test")};
  SyncWatch _watch{"user.ini", seconds(5), _log};
};

}  // namespace

TEST_F(SyncWatchTest, WorkThatHangsIsReportedOnceAndSoIsItsEnd) {
  EXPECT_TRUE(Begin(0));
  Look(4);
  EXPECT_THAT(GetLog(), IsEmpty());
  for (const int time : {5, 10, 15}) Look(time);
  EXPECT_THAT(GetLog(), ElementsAre(kTakesLong));
  EXPECT_TRUE(_watch.End());
  EXPECT_THAT(GetLog(), ElementsAre(kTakesLong, kSyncsAgain));
}

TEST_F(SyncWatchTest, WorkThatEndsInTimeIsNotReported) {
  for (int time = 0; time < 20; ++time) {
    static_cast<void>(Begin(time));
    EXPECT_FALSE(_watch.End());
    Look(time);
  }
  EXPECT_THAT(GetLog(), IsEmpty());
}

// The later one has not taken long yet.
TEST_F(SyncWatchTest, LookFindsTheWorkThatIsUnderWayAndNotTheOneBefore) {
  static_cast<void>(Begin(0));
  EXPECT_FALSE(_watch.End());
  EXPECT_FALSE(Begin(3));
  Look(5);
  EXPECT_THAT(GetLog(), IsEmpty());
  EXPECT_EQ(_watch.GetNextLook(), At(8));
  Look(8);
  EXPECT_THAT(GetLog(), ElementsAre(kTakesLong));
}

TEST_F(SyncWatchTest, FirstWorkAfterARestAloneWakesTheThreadThatLooks) {
  EXPECT_TRUE(Begin(0));
  EXPECT_FALSE(_watch.End());
  EXPECT_FALSE(Begin(1));
  EXPECT_FALSE(_watch.End());
  Look(5);
  EXPECT_FALSE(_watch.GetNextLook());
  EXPECT_TRUE(Begin(6));
}

}  // namespace tavix::test
