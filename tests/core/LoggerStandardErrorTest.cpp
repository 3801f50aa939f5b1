// What the logger writes to standard error, and when nobody has configured it.

#include "tavix/core/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/core/LoggerTest.h"
#include "tests/support/CapturedOutput.h"

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// Runs in a process of its own, in which nobody has configured anything.
class UnconfiguredLogger : public testing::Test {
 protected:
  UnconfiguredLogger() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(UnconfiguredLogger, WritesWarningsAndWorseToStandardError) {
  const auto logAndEnd = [] {
    LogAtEveryLevel();
    _exit(0);
  };
  EXPECT_EXIT(logAndEnd(), testing::ExitedWithCode(0),
              testing::AllOf(HasSubstr("Z ERROR Test: 3\n"), HasSubstr("Z WARNING Test: 4\n"), Not(HasSubstr("NOTICE")),
                             Not(HasSubstr("INFO")), Not(HasSubstr("TRACE"))));
}

TEST_F(UnconfiguredLogger, KeepsLogFilesInVarLog) {
  const auto logAndEnd = [] {
    Log::ModifyLogRotateConf("/tmp/tavix.log", "Log");
    _exit(0);
  };
  EXPECT_EXIT(logAndEnd(), testing::ExitedWithCode(0), HasSubstr("Log file '/tmp/tavix.log' is not below '/var/log'"));
}

TEST_F(Logger, StandardErrorIsAnOutputWhenTheGroupSaysSo) {
  CapturedOutput errors(STDERR_FILENO);
  Configure({{"log.stderr", "true"}});
  _log->Warning("both");
  Configure({});
  _log->Warning("one");
  EXPECT_THAT(WithoutTimes(errors.Finish()), ElementsAre("WARNING Test: both"));
  EXPECT_THAT(WrittenLines(), ElementsAre("WARNING Test: both", "WARNING Test: one"));
}

TEST_F(Logger, LinesForTheJournalBeginWithTheirLevelAndHaveNoTime) {
  CapturedOutput errors(STDERR_FILENO);
  Log::SetJournal(true);
  Configure({{"log.stderr", "true"}});
  LogAtEveryLevel();
  Log::SetJournal(false);
  Configure({{"log.stderr", "true"}});
  _log->Error("plain");
  EXPECT_THAT(Lines(errors.Finish()), ElementsAre("<3>Test: 3", "<4>Test: 4", "<5>Test: 5", "<6>Test: 6", "<7>Test: 8",
                                                  EndsWith("Z ERROR Test: plain")));
}

}  // namespace

}  // namespace tavix::test
