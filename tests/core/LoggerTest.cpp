#include "tavix/core/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <iostream>
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
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Environment.h"
#include "tests/support/FullDevice.h"
#include "tests/support/StalledPipe.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::core::LogLevel;
using tavix::test::BackgroundCall;
using tavix::test::CapturedOutput;
using tavix::test::FullDevice;
using tavix::test::ScopedEnvironment;
using tavix::test::StalledPipe;
using tavix::test::TemporaryDirectory;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Log = tavix::core::Logger;

constexpr size_t kTimeSize = 25;  // of "2001-02-03T04:05:06.789Z "

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The lines from their level on.
std::vector<std::string> WithoutTimes(const std::string& text) {
  std::vector<std::string> lines = Lines(text);
  for (std::string& line : lines) line.erase(0, kTimeSize);
  return lines;
}

void LogAt(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

void LogAt(LogLevel level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log::GetLogger("Test")->LogMessageV(level, format, arguments);
  va_end(arguments);
}

void LogAtEveryLevel() {
  LogAt(tavix::core::kLogError, "3");
  LogAt(tavix::core::kLogWarning, "4");
  LogAt(tavix::core::kLogNotice, "5");
  LogAt(tavix::core::kLogInformation, "6");
  LogAt(tavix::core::kLogTrace, "8");
}

// Keys that "keys" lacks are set so that all levels go to standard output alone.
void Configure(IniFile::KeyMap keys) {
  keys.insert({{"log.level", "8"}, {"log.syslog", "false"}, {"log.stdout", "true"}});
  Log::ConfigureLogging(IniFile(IniFile::GroupMap{{"Log", keys}}), "Log");
}

// Logging as a whole belongs to the process; every test begins with it going to standard output, which is captured, and
// with log files in a directory of the test's own.
class Logger : public testing::Test {
 protected:
  Logger() {
    Log::SetLogFileDirectory(_directory.GetPath());
    Configure({});
  }

  // What was captured tells what failed. A count of repeats that is still due must not go to the next test.
  ~Logger() override {
    const std::string captured = _output.Finish();
    const CapturedOutput swallowed(STDOUT_FILENO);
    Configure({});
    if (HasFailure()) std::cerr << captured;
  }

  std::vector<std::string> WrittenLines() { return WithoutTimes(_output.Finish()); }

  const TemporaryDirectory _directory;
  CapturedOutput _output{STDOUT_FILENO};
  Log* const _log = Log::GetLogger("Test");
};

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
  EXPECT_EQ(static_cast<int>(tavix::core::kLogError), LOG_ERR);
  EXPECT_EQ(static_cast<int>(tavix::core::kLogWarning), LOG_WARNING);
  EXPECT_EQ(static_cast<int>(tavix::core::kLogNotice), LOG_NOTICE);
  EXPECT_EQ(static_cast<int>(tavix::core::kLogInformation), LOG_INFO);
  EXPECT_EQ(static_cast<int>(tavix::core::kLogTrace), 8);
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
  const auto now = [] { return system_clock::to_time_t(system_clock::now()); };  // time(3) may be a tick behind
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
  EXPECT_TRUE(Log::IsEnabled(tavix::core::kLogError));
  EXPECT_TRUE(Log::IsEnabled(tavix::core::kLogWarning));
  EXPECT_FALSE(Log::IsEnabled(tavix::core::kLogInformation));
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

TEST_F(Logger, AFileGetsTheLinesThatTheOtherOutputsGet) {
  Configure({{"log.file", "tavix.log"}});
  _log->Error("both");
  const std::string written = _output.Finish();
  EXPECT_THAT(written, EndsWith("Z ERROR Test: both\n"));
  EXPECT_EQ(_directory.Read("tavix.log"), written);
}

TEST_F(Logger, AnEmptyFileNameMeansNone) {
  Configure({{"log.file", ""}});
  _log->Error("only here");
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: only here"));
  EXPECT_TRUE(std::filesystem::is_empty(_directory.GetPath()));
}

TEST_F(Logger, LinesWithoutOutputsWaitForTheNextConfiguration) {
  Log::ClearAppenders();
  _log->Error("kept");
  _log->Warning("kept, too");
  EXPECT_EQ(_output.GetText(), "");
  Configure({});
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Test: kept", "WARNING Test: kept, too"));
}

TEST_F(Logger, LinesThatWaitedGoToTheLogFile) {
  Log::ClearAppenders();
  _log->Error("kept");
  Configure({{"log.file", "tavix.log"}, {"log.stdout", "false"}});
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")), ElementsAre("ERROR Test: kept"));
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

TEST_F(Logger, AFileThatMayNotBeUsedIsRefusedWithAWarningAndLoggingGoesOn) {
  const TemporaryDirectory elsewhere;
  const std::string target = elsewhere.Write("target", "precious");
  std::filesystem::create_symlink(target, _directory.Path("link"));
  std::filesystem::create_symlink(elsewhere.GetPath(), _directory.Path("linked"));
  std::filesystem::create_directories(_directory.Path("directory"));
  ASSERT_EQ(mkfifo(_directory.Path("pipe").c_str(), 0600), 0);
  for (const std::string& file :
       {elsewhere.Path("new"), std::string("../new"), _directory.Path("../new"), _directory.Path("linked/new"),
        std::string("link"), std::string("pipe"), std::string("directory"), std::string("..")}) {
    CapturedOutput output(STDOUT_FILENO);
    Configure({{"log.file", file}});
    _log->Error("goes on");
    const std::vector<std::string> lines = WithoutTimes(output.Finish());
    EXPECT_THAT(lines, ElementsAre(testing::AllOf(testing::StartsWith("WARNING Logger: "), HasSubstr("'" + file + "'"),
                                                  EndsWith(" (log.file of group 'Log')")),
                                   "ERROR Test: goes on"));
  }
  EXPECT_EQ(elsewhere.Read("target"), "precious");
  EXPECT_FALSE(elsewhere.Has("new"));
}

TEST_F(Logger, TheRotationMayBePointedAtAFileLater) {
  Log::ModifyLogRotateConf("tavix.log", "Log");
  _log->Error("first");
  Log::ModifyLogRotateConf("tavix.log", "Log");
  _log->Error("second");
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")), ElementsAre("ERROR Test: first", "ERROR Test: second"));
}

TEST_F(Logger, TheRotationFollowsTheLastFile) {
  Log::ModifyLogRotateConf("first.log", "Log");
  Log::ModifyLogRotateConf("second.log", "Log");
  _log->Error("second");
  EXPECT_EQ(_directory.Read("first.log"), "");
  EXPECT_THAT(WithoutTimes(_directory.Read("second.log")), ElementsAre("ERROR Test: second"));
}

TEST_F(Logger, AFileThatIsRefusedLaterLeavesTheOneBefore) {
  Log::ModifyLogRotateConf("first.log", "Log");
  for (const char* file : {"/etc/second.log", "gone/second.log", ""}) Log::ModifyLogRotateConf(file, "Log");
  _log->Error("goes on");
  const std::vector<std::string> lines = WrittenLines();
  EXPECT_THAT(lines, ElementsAre(HasSubstr("/etc/second.log"), HasSubstr("gone/second.log"), HasSubstr("''"),
                                 "ERROR Test: goes on"));
  EXPECT_EQ(WithoutTimes(_directory.Read("first.log")), lines);
}

TEST_F(Logger, ALogThatAnUnusableFileWouldCostGoesToStandardError) {
  CapturedOutput errors(STDERR_FILENO);
  Configure({{"log.stdout", "false"}, {"log.file", _directory.Path("gone/tavix.log")}});
  _log->Error("not lost");
  EXPECT_THAT(WithoutTimes(errors.Finish()),
              ElementsAre(HasSubstr("WARNING Logger: Failed to open log file '"), "ERROR Test: not lost"));
}

TEST_F(Logger, ALogToNothingIsLeftThatWay) {
  CapturedOutput errors(STDERR_FILENO);
  Configure({{"log.stdout", "false"}});
  _log->Error("nobody wants it");
  EXPECT_EQ(errors.Finish(), "");
}

TEST_F(Logger, AReconfigurationWhoseFileCanNotBeUsedChangesNothing) {
  Configure({{"log.level", "4"}, {"log.file", "first.log"}});
  const std::string gone = _directory.Path("gone/tavix.log");
  const IniFile settings(IniFile::GroupMap{{"Log", {{"log.level", "8"}, {"log.file", gone}}}});
  EXPECT_THAT([&] { Log::ReconfigureLogging(settings, "Log"); },
              testing::ThrowsMessage<tavix::osa::Exception>("Failed to open log file '" + gone +
                                                            "': No such file or directory"));
  _log->Trace("not seen");
  _log->Warning("as before");
  EXPECT_THAT(WithoutTimes(_directory.Read("first.log")), ElementsAre("WARNING Test: as before"));
  EXPECT_THAT(WrittenLines(), ElementsAre("WARNING Test: as before"));
}

TEST_F(Logger, AReconfigurationIsAConfigurationOtherwise) {
  const IniFile settings(IniFile::GroupMap{
      {"Log", {{"log.level", "8"}, {"log.syslog", "false"}, {"log.stdout", "true"}, {"log.file", "tavix.log"}}}});
  Log::ReconfigureLogging(settings, "Log");
  _log->Trace("both");
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")), ElementsAre("TRACE Test: both"));
  EXPECT_THAT(WrittenLines(), ElementsAre("TRACE Test: both"));
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

TEST_F(Logger, LinesThatAFullDiskCostAreCountedInTheFile) {
  Configure({{"log.file", "tavix.log"}});
  _log->Error("before");
  {
    const FullDevice full(_directory.Read("tavix.log").size());
    _log->Error("lost");
  }
  _log->Error("after");
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")),
              ElementsAre("ERROR Test: before", "WARNING Logger: lines lost here, because the output took no more: 1",
                          "ERROR Test: after"));
}

TEST_F(Logger, TheLogFileIsRotatedAtOneMebibyteWithThreeOldFiles) {
  Configure({{"log.file", "tavix.log"}, {"log.stdout", "false"}});
  const std::string filler(950, 'x');
  for (int i = 0; i < 6000; ++i) _log->Error("%d %s", i, filler.c_str());
  for (const char* old : {"tavix.log.1", "tavix.log.2", "tavix.log.3"}) {
    const std::string text = _directory.Read(old);
    EXPECT_LE(text.size(), 1024u * 1024) << old;
    EXPECT_GE(text.size(), 1023u * 1024) << old;
  }
  EXPECT_FALSE(_directory.Has("tavix.log.4"));
  EXPECT_THAT(_directory.Read("tavix.log"), HasSubstr("ERROR Test: 5999 "));
}

TEST_F(Logger, TheDirectoryOfLogFilesMayBeGivenWithSlashesAtItsEnd) {
  Log::SetLogFileDirectory(_directory.GetPath() + "//");
  Configure({{"log.file", _directory.Path("tavix.log")}, {"log.stdout", "false"}});
  _log->Error("there");
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")), ElementsAre("ERROR Test: there"));
}

class Failing : public tavix::osa::Runnable {
 public:
  void Run() override { throw tavix::osa::Exception("it broke"); }
};

TEST_F(Logger, AThreadsExceptionIsLogged) {
  Failing failing;
  tavix::osa::Thread thread("LocalConnection", &failing, 32768, 0);
  thread.Run();
  thread.Join();
  EXPECT_THAT(WrittenLines(), ElementsAre("ERROR Thread: thread 'LocalConnection' ended by an exception: it broke"));
}

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

TEST_F(Logger, NoticeIsWrittenAtItsLevel) {
  _log->Notice("%s", "seen");
  Configure({{"log.level", "4"}});
  _log->Notice("%s", "not seen");
  EXPECT_THAT(WrittenLines(), ElementsAre("NOTICE Test: seen"));
}

}  // namespace
