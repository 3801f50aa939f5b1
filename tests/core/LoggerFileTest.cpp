#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tests/core/LoggerTest.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/FullDevice.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using core::IniFile;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

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

TEST_F(Logger, LinesThatWaitedGoToTheLogFile) {
  Log::ClearAppenders();
  _log->Error("kept");
  Configure({{"log.file", "tavix.log"}, {"log.stdout", "false"}});
  EXPECT_THAT(WithoutTimes(_directory.Read("tavix.log")), ElementsAre("ERROR Test: kept"));
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
  EXPECT_THAT(
      [&] { Log::ReconfigureLogging(settings, "Log"); },
      testing::ThrowsMessage<osa::Exception>("Failed to open log file '" + gone + "': No such file or directory"));
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

}  // namespace

}  // namespace tavix::test
