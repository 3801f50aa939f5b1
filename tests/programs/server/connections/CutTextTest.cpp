#include "programs/server/connections/CutText.h"

#include <gtest/gtest.h>

namespace tavix::test {

namespace {

using daemon::CutReason;
using daemon::DescribeSent;

const daemon::Limits kLimits;

}  // namespace

TEST(CutText, SaysWhatWasExpectedAndWhichRequestWasFound) {
  EXPECT_EQ(DescribeSent(CutReason::kHttp, "GET / HTTP/1.1\r\nHost: x\r\n", kLimits),
            ": expected a command, found \"GET / HTTP/1.1\"");
  EXPECT_EQ(DescribeSent(CutReason::kRequestTime, "merge\n[A]\nkey=hidden\n", kLimits),
            ": expected the end of the request within 60 s, found \"merge\"");
  EXPECT_EQ(DescribeSent(CutReason::kRequest, "merge\n[A]\n", kLimits), ": expected at most 67108864, found \"merge\"");
  EXPECT_EQ(DescribeSent(CutReason::kTls, "\x16\x03", kLimits), ": expected text");
}

TEST(CutText, ShowsTheBeginningOfALongLine) {
  EXPECT_EQ(DescribeSent(CutReason::kLine, std::string(1000, 'x'), kLimits),
            ": expected at most 16777216, found \"" + std::string(60, 'x') + "...\"");
  EXPECT_EQ(DescribeSent(CutReason::kLine, "\x01", kLimits), ": expected at most 16777216, found \"\\x01\"");
}

TEST(CutText, ShowsNoValueOfAClientThatIsOutOfStep) {
  EXPECT_EQ(DescribeSent(CutReason::kRequestTime, "psk=secret", kLimits),
            ": expected the end of the request within 60 s, found \"psk...\"");
  EXPECT_EQ(DescribeSent(CutReason::kHttp, "GET /login?token=secret HTTP/1.1\r\n", kLimits),
            ": expected a command, found \"GET /login...\"");
  EXPECT_EQ(DescribeSent(CutReason::kLine, "s:6:\"secret\";", kLimits),
            ": expected at most 16777216, found \"s:6:...\"");
}

TEST(CutText, SaysNothingMoreWhereItIsNotWhatTheClientSent) {
  for (const CutReason reason : {CutReason::kBacklog, CutReason::kMemory, CutReason::kAllRequests})
    EXPECT_EQ(DescribeSent(reason, "", kLimits), "");
}

}  // namespace tavix::test
