#include "tavix/core/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"
#include "tests/core/LoggerTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Environment.h"
#include "tests/support/StalledPipe.h"

namespace tavix::test {

namespace {

using core::IniFile;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Logger, ThereIsOneOfEachName) {
  EXPECT_EQ(Log::GetLogger("TavixSettings"), Log::GetLogger("TavixSettings"));
  EXPECT_NE(Log::GetLogger("TavixSettings"), Log::GetLogger("ClientHandler"));
  EXPECT_EQ(Log::GetLogger("MsgDispatcher")->GetName(), "MsgDispatcher");
}

TEST_F(Logger, AMessageBecomesALineWithTimeLevelLoggerAndText) {
  _log->Error("lost %d of %s", 3, "seven");
  EXPECT_THAT(_output.Finish(),
              testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
                                    "ERROR Test: lost 3 of seven\n"));
}

TEST_F(Logger, EveryLevelHasAName) {
  LogAtEveryLevel();
  EXPECT_THAT(WrittenLines(),
              ElementsAre("ERROR Test: 3", "WARNING Test: 4", "NOTICE Test: 5", "INFO Test: 6", "TRACE Test: 8"));
}

TEST_F(Logger, TheLevelsAreNumberedAsTheSystemLogNumbersThem) {
  EXPECT_EQ(static_cast<int>(core::kLogError), LOG_ERR);
  EXPECT_EQ(static_cast<int>(core::kLogWarning), LOG_WARNING);
  EXPECT_EQ(static_cast<int>(core::kLogNotice), LOG_NOTICE);
  EXPECT_EQ(static_cast<int>(core::kLogInformation), LOG_INFO);
  EXPECT_EQ(static_cast<int>(core::kLogTrace), 8);
}

TEST_F(Logger, TheVariadicFormsLogAtTheirLevel) {
  _log->Error("%s", "e");
  _log->Warning("%s", "w");
  _log->Information("%s", "i");
  _log->Trace("%s", "t");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: e", "WARNING Test: w", "INFO Test: i", "TRACE Test: t"));
}

TEST_F(Logger, TheTimeIsUtcWhateverTheTimeZone) {
  const ScopedEnvironment zone("TZ", "FAR-11");
  tzset();
  using std::chrono::system_clock;
  const auto now = [] { return system_clock::to_time_t(system_clock::now()); };  // time(2) may be a tick behind
  const time_t before = now();
  _log->Error("now");
  const time_t after = now();
  tm parts{};
  ASSERT_NE(strptime(_output.Finish().c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
  EXPECT_GE(timegm(&parts), before);
  EXPECT_LE(timegm(&parts), after);
}

TEST_F(Logger, ArgumentsAreNotReadAsFormats) {
  _log->Error("%s", "100%s %n");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: 100%s %n"));
}

TEST_F(Logger, ControlBytesAreEscaped) {
  _log->Error("a\nERROR forged: b\r\t\x1b[31m\x7f");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: a\\x0aERROR forged: b\\x0d\\x09\\x1b[31m\\x7f"));
}

TEST_F(Logger, ControlBytesOfALoggersNameAreEscaped) {
  Log::GetLogger("a\nb")->Error("text");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR a\\x0ab: text"));
}

TEST_F(Logger, OtherTextStaysAsItIs) {
  _log->Error("%s", "caf\xC3\xA9 \\n 'quoted'");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: caf\xC3\xA9 \\n 'quoted'"));
}

TEST_F(Logger, ALineHasOneKibibyteAtMost) {
  for (const std::string& text : {std::string(995, 'x'), std::string(5000, 'x'), std::string(1000, '\n')})
    _log->Error("%s", text.c_str());
  for (const std::string& line : Lines(_output.Finish())) {
    EXPECT_LE(line.size() + 1, 1024u);
    EXPECT_GE(line.size() + 1, 1020u);
  }
}

TEST_F(Logger, AMessageThatRepeatsIsCounted) {
  for (int i = 0; i < 5; ++i) _log->Warning("again");
  _log->Warning("something else");
  EXPECT_THAT(WrittenLines(), ElementsAre("WARNING Test: again", HasSubstr("last message repeated 4 times"),
                                          "WARNING Test: something else"));
}

TEST_F(Logger, OnlyTheSameMessageOfTheSameLoggerAndLevelRepeats) {
  _log->Warning("text");
  _log->Error("text");
  Log::GetLogger("Other")->Error("text");
  _log->Error("text");
  _log->Error("texts");
  EXPECT_THAT(WrittenLines(), ElementsAre("WARNING Test: text", "ERROR Test: text", "ERROR Other: text",
                                          "ERROR Test: text", "ERROR Test: texts"));
}

TEST_F(Logger, MessagesThatTakeTurnsDoNotRepeat) {
  for (int i = 0; i < 3; ++i) {
    _log->Warning("tick");
    _log->Warning("tock");
  }
  EXPECT_THAT(WrittenLines(), ElementsAre(EndsWith("tick"), EndsWith("tock"), EndsWith("tick"), EndsWith("tock"),
                                          EndsWith("tick"), EndsWith("tock")));
}

TEST_F(Logger, TheCountOfRepeatsIsNotLostWhenTheOutputsChange) {
  _log->Warning("again");
  _log->Warning("again");
  Configure({});
  _log->Warning("again");
  EXPECT_THAT(WrittenLines(),
              ElementsAre("WARNING Test: again", HasSubstr("last message repeated 1 times"), "WARNING Test: again"));
}

TEST_F(Logger, AMessageTheLevelDropsDoesNotBreakARepeat) {
  Configure({{"log.level", "4"}});
  _log->Warning("again");
  _log->Trace("dropped");
  _log->Warning("again");
  EXPECT_THAT(WrittenLines(), ElementsAre("WARNING Test: again"));
}

TEST_F(Logger, MessagesUpToTheLevelAreWritten) {
  const std::vector<std::pair<const char*, std::string>> cases = {{"-1", ""},    {"2", ""},      {"3", "3"},
                                                                  {"4", "34"},   {"5", "345"},   {"6", "3456"},
                                                                  {"7", "3456"}, {"8", "34568"}, {"100", "34568"}};
  for (const auto& [level, expected] : cases) {
    CapturedOutput output(STDOUT_FILENO);
    Configure({{"log.level", level}});
    LogAtEveryLevel();
    std::string written;
    for (const std::string& line : Lines(output.Finish())) written += line.back();
    EXPECT_EQ(written, expected) << level;
  }
}

TEST_F(Logger, TellsWhetherALevelIsWritten) {
  Configure({{"log.level", "4"}});
  EXPECT_TRUE(Log::IsEnabled(core::kLogError));
  EXPECT_TRUE(Log::IsEnabled(core::kLogWarning));
  EXPECT_FALSE(Log::IsEnabled(core::kLogInformation));
}

// What the system log is given is shown on standard error, too, under the name of the process.
class ShownSystemLog {
 public:
  ShownSystemLog() { openlog("shown", LOG_PERROR, LOG_USER); }
  ~ShownSystemLog() {
    setlogmask(0xff);
    closelog();
    openlog(nullptr, 0, LOG_USER);
  }

  std::string Finish() { return _output.Finish(); }

 private:
  CapturedOutput _output{STDERR_FILENO};
};

TEST_F(Logger, TheSystemLogGetsLoggerAndTextAlone) {
  ShownSystemLog systemLog;
  Configure({{"log.syslog", "true"}});
  _log->Error("100%%");
  EXPECT_EQ(systemLog.Finish(), "shown: Test: 100%\n");
}

TEST_F(Logger, TheSystemLogGetsNothingWhenSwitchedOff) {
  ShownSystemLog systemLog;
  Configure({{"log.syslog", "false"}});
  _log->Error("not there");
  EXPECT_EQ(systemLog.Finish(), "");
}

TEST_F(Logger, TheSystemLogGetsTheLevelAsItNumbersIt) {
  const std::vector<std::pair<int, std::string>> cases = {
      {LOG_ERR, "3"}, {LOG_WARNING, "4"}, {LOG_NOTICE, "5"}, {LOG_INFO, "6"}, {LOG_DEBUG, "8"}};
  for (const auto& [priority, text] : cases) {
    ShownSystemLog systemLog;
    Configure({{"log.syslog", "true"}});
    setlogmask(LOG_MASK(priority));
    LogAtEveryLevel();
    EXPECT_EQ(systemLog.Finish(), "shown: Test: " + text + "\n");
  }
}

TEST_F(Logger, AnEmptyGroupMeansErrorsToTheSystemLogAlone) {
  ShownSystemLog systemLog;
  Log::ConfigureLogging(IniFile(), "Log");
  LogAtEveryLevel();
  EXPECT_EQ(systemLog.Finish(), "shown: Test: 3\n");
  EXPECT_EQ(_output.Finish(), "");
}

TEST_F(Logger, ALevelThatIsNoNumberMeansErrors) {
  Configure({{"log.level", "loud"}});
  LogAtEveryLevel();
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: 3"));
}

TEST_F(Logger, OnlyTheGroupGivenCounts) {
  IniFile settings;
  settings.SetValue("Other", "log.stdout", "false");
  settings.SetValue("Log", "log.stdout", "yes");
  settings.SetValue("Log", "log.syslog", "off");
  Log::ConfigureLogging(settings, "Log");
  _log->Error("here");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: here"));
}

TEST_F(Logger, AConfigurationReplacesTheOneBefore) {
  Configure({{"log.file", "first.log"}});
  Configure({{"log.file", "second.log"}, {"log.stdout", "false"}});
  _log->Error("second");
  EXPECT_EQ(_directory.Read("first.log"), "");
  EXPECT_THAT(WithoutTimes(_directory.Read("second.log")), ElementsAre("ERROR Test: second"));
  EXPECT_THAT(WrittenLines(), IsEmpty());
}

TEST_F(Logger, LinesWithoutOutputsWaitForTheNextConfiguration) {
  Log::ClearAppenders();
  _log->Error("kept");
  _log->Warning("kept, too");
  EXPECT_EQ(_output.GetText(), "");
  Configure({});
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: kept", "WARNING Test: kept, too"));
}

TEST_F(Logger, LinesThatWaitedAreWrittenOnce) {
  Log::ClearAppenders();
  _log->Error("kept");
  Configure({});
  Configure({});
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: kept"));
}

TEST_F(Logger, TheNewest256LinesWait) {
  Log::ClearAppenders();
  for (int i = 1; i <= 300; ++i) _log->Error("%d", i);
  Configure({});
  const std::vector<std::string> lines = WrittenLines();
  ASSERT_EQ(lines.size(), 256u);
  EXPECT_EQ(lines.front(), "ERROR Test: 45");
  EXPECT_EQ(lines.back(), "ERROR Test: 300");
}

TEST_F(Logger, NoLineIsLostWhileOutputsAreExchanged) {
  constexpr int kLines = 200;  // fewer than wait for a configuration
  Configure({{"log.file", "tavix.log"}, {"log.stdout", "false"}});
  BackgroundCall logging([&] {
    for (int i = 0; i < kLines; ++i) {
      _log->Error("%d", i);
      std::this_thread::yield();
    }
  });
  while (!logging.HasEnded()) {
    Log::ClearAppenders();
    Configure({{"log.file", "tavix.log"}, {"log.stdout", "false"}});
  }
  const std::vector<std::string> lines = WithoutTimes(_directory.Read("tavix.log"));
  ASSERT_EQ(lines.size(), static_cast<size_t>(kLines));
  for (int i = 0; i < kLines; ++i) EXPECT_EQ(lines[static_cast<size_t>(i)], "ERROR Test: " + std::to_string(i));
}

TEST_F(Logger, LinesOfManyThreadsAreNeverTorn) {
  constexpr int kThreads = 6;
  constexpr int kLines = 300;
  const std::string filler(200, 'x');
  {
    std::vector<std::unique_ptr<BackgroundCall>> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.push_back(std::make_unique<BackgroundCall>([&, thread] {
        Log* const log = Log::GetLogger("Thread" + std::to_string(thread));
        for (int i = 0; i < kLines; ++i) log->Error("%d %s.", i, filler.c_str());
      }));
    }
  }
  std::map<std::string, int> next;
  for (const std::string& line : WrittenLines()) {
    std::istringstream words(line);
    std::string level, logger, text;
    int number = -1;
    words >> level >> logger >> number >> text;
    ASSERT_EQ(number, next[logger]++) << line;
    ASSERT_EQ(text, filler + ".") << line;
  }
  EXPECT_EQ(next.size(), static_cast<size_t>(kThreads));
  for (const auto& [logger, count] : next) EXPECT_EQ(count, kLines) << logger;
}

TEST_F(Logger, LinesThatAnOutputCouldNotTakeAreCountedThere) {
  StalledPipe pipe(STDERR_FILENO);
  Configure({{"log.stderr", "true"}});
  for (int i = 1; i <= 3; ++i) _log->Error("%d", i);
  pipe.Drain();
  _log->Error("4");
  EXPECT_THAT(WithoutTimes(pipe.Drain()),
              ElementsAre("WARNING Logger: lines lost here, because the output took no more: 3", "ERROR Test: 4"));
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: 1", "ERROR Test: 2", "ERROR Test: 3", "ERROR Test: 4"));
}

TEST_F(Logger, AnOutputIsToldOfLostLinesBeforeItGoes) {
  StalledPipe pipe(STDERR_FILENO);
  Configure({{"log.stderr", "true"}});
  _log->Error("lost");
  pipe.Drain();
  Configure({});
  EXPECT_THAT(WithoutTimes(pipe.Drain()),
              ElementsAre("WARNING Logger: lines lost here, because the output took no more: 1"));
}

class Failing : public osa::Runnable {
 public:
  void Run() override { throw osa::Exception("it broke"); }
};

TEST_F(Logger, AThreadsExceptionIsLogged) {
  Failing failing;
  osa::Thread thread("LocalConnection", &failing, 32768, 0);
  thread.Run();
  thread.Join();
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Thread: thread 'LocalConnection' ended by an exception: it broke"));
}

TEST_F(Logger, NoticeIsWrittenAtItsLevel) {
  _log->Notice("%s", "seen");
  Configure({{"log.level", "4"}});
  _log->Notice("%s", "not seen");
  EXPECT_THAT(WrittenLines(), ElementsAre("NOTICE Test: seen"));
}

}  // namespace

}  // namespace tavix::test
