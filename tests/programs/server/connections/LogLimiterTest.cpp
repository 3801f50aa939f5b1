#include "programs/server/connections/LogLimiter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <thread>

#include "programs/server/connections/LogPeer.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/LogOf.h"

namespace tavix::test {

namespace {

using daemon::LogLimiter;
using daemon::LogPeer;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

const LogLimiter::Clock::time_point kBegin = LogLimiter::Clock::now();
constexpr char kFormat[] = "one";
constexpr char kOtherFormat[] = "two";

// How many lines of a cause, one every "step", may be written until then.
size_t CountTaken(LogLimiter& limiter, milliseconds step, milliseconds end) {
  size_t taken = 0;
  for (milliseconds at{0}; at < end; at += step) taken += limiter.TakeLine("peer", kFormat, 0, "text", kBegin + at);
  return taken;
}

}  // namespace

TEST(LogLimiter, TakesTenLinesInASecond) {
  EXPECT_THAT(LogOf([] {
                LogLimiter limiter;
                ASSERT_EQ(CountTaken(limiter, milliseconds(1), milliseconds(1000)), 10u);
              }),
              ElementsAre("WARNING LogLimiter: peer: lines left out: 990, like: text"));
}

TEST(LogLimiter, CountsOverAnySecond) {
  LogOf([] {
    LogLimiter limiter;
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(limiter.TakeLine("peer", kFormat, 0, "", kBegin + milliseconds(100 * i)));
    ASSERT_FALSE(limiter.TakeLine("peer", kFormat, 0, "", kBegin + milliseconds(999)));
  });
}

TEST(LogLimiter, TakesAHundredLinesInAMinute) {
  LogOf([] {
    LogLimiter limiter;
    ASSERT_LE(CountTaken(limiter, milliseconds(200), minutes(1)), 100u);
    ASSERT_EQ(CountTaken(limiter, milliseconds(200), minutes(1)), 0u);
  });
}

TEST(LogLimiter, ReportsHowManyItLeftOutBeforeTheNextLine) {
  const auto log = LogOf([] {
    LogLimiter limiter;
    for (int i = 0; i < 12; ++i) limiter.TakeLine("peer", kFormat, 0, "text", kBegin);
    ASSERT_TRUE(limiter.TakeLine("peer", kFormat, 0, "text", kBegin + seconds(1)));
  });
  EXPECT_THAT(log, ElementsAre("WARNING LogLimiter: peer: lines left out: 2, like: text"));
}

TEST(LogLimiter, ReportsWhatIsDueWithoutAnotherLine) {
  const auto log = LogOf([] {
    LogLimiter limiter;
    for (int i = 0; i < 11; ++i) limiter.TakeLine("peer", kFormat, 0, "text", kBegin);
    limiter.ReportDue(kBegin + milliseconds(999));
    limiter.ReportDue(kBegin + seconds(1));
    limiter.ReportDue(kBegin + seconds(2));
  });
  EXPECT_THAT(log, ElementsAre("WARNING LogLimiter: peer: lines left out: 1, like: text"));
}

TEST(LogLimiter, TellsItsOwnerWhenAReportIsDue) {
  LogOf([] {
    LogLimiter limiter;
    pollfd due{limiter.GetDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&due, 1, 0), 0);
    const LogLimiter::Clock::time_point now = LogLimiter::Clock::now();  // of all: no second passes between two lines
    for (int i = 0; i < 11; ++i) limiter.TakeLine("peer", kFormat, 0, "text", now);
    ASSERT_EQ(poll(&due, 1, -1), 1);
    limiter.ReportDue(LogLimiter::Clock::now() + seconds(1));
    ASSERT_EQ(poll(&due, 1, 0), 0);
  });
}

TEST(LogLimiter, KeepsPeersAndCausesApart) {
  LogOf([] {
    LogLimiter limiter;
    ASSERT_EQ(CountTaken(limiter, milliseconds(1), milliseconds(100)), 10u);
    ASSERT_TRUE(limiter.TakeLine("other", kFormat, 0, "", kBegin));
    ASSERT_TRUE(limiter.TakeLine("peer", kOtherFormat, 0, "", kBegin));
    ASSERT_TRUE(limiter.TakeLine("peer", kFormat, 1, "", kBegin));
    ASSERT_FALSE(limiter.TakeLine("peer", kFormat, 0, "", kBegin));
  });
}

TEST(LogLimiter, HasAllPeersBeyondItsMaximumShareOneBound) {
  LogOf([] {
    LogLimiter limiter;
    size_t taken = 0;
    for (size_t i = 0; i < 10'000; ++i) taken += limiter.TakeLine(std::to_string(i), kFormat, 0, "", kBegin);
    ASSERT_LE(taken, LogLimiter::kMaxCauses + LogLimiter::kMaxInASecond);
    ASSERT_TRUE(limiter.TakeLine("later", kFormat, 0, "", kBegin + minutes(1)));
    ASSERT_TRUE(limiter.TakeLine("later", kFormat, 0, "", kBegin + minutes(1)));
  });
}

TEST(LogLimiter, LimitsWarningsThatAreLoggedForAPeerAlone) {
  const auto log = LogOf([] {
    core::Logger* const logger = core::Logger::GetLogger("Test");
    const std::string name = "peer";
    const LogLimiter limiter;
    const LogPeer peer(name);
    for (int i = 0; i < 1000; ++i) logger->Warning("bad %d", i);
    for (int i = 0; i < 15; ++i) logger->Notice("note %d", i);
    std::thread([&] {
      for (int i = 0; i < 15; ++i) logger->Warning("of nobody %d", i);
    }).join();
  });
  EXPECT_THAT(log, testing::Contains(testing::HasSubstr("Test: bad")).Times(testing::Lt(1000)));
  EXPECT_THAT(log, testing::Contains(testing::HasSubstr("Test: note")).Times(15));
  EXPECT_THAT(log, testing::Contains(testing::HasSubstr("Test: of nobody")).Times(15));
  EXPECT_THAT(log.back(),
              testing::MatchesRegex("WARNING LogLimiter: peer: lines left out: [0-9]+, like: Test: bad .*"));
}

TEST(LogLimiter, LimitsNothingOnceItIsGone) {
  const std::string name = "peer";
  const LogPeer peer(name);
  const auto log = LogOf([] {
    { const LogLimiter limiter; }
    for (int i = 0; i < 100; ++i) core::Logger::GetLogger("Test")->Warning("bad %d", i);
  });
  EXPECT_EQ(log.size(), 100u);
}

}  // namespace tavix::test
