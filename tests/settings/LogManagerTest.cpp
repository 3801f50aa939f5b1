#include "tavix/settings/LogManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/Subscription.h"
#include "tests/settings/LogManagerTest.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::core::Logger;
using tavix::osa::Exception;
using tavix::test::AnsweringServer;
using tavix::test::BackgroundCall;
using tavix::test::CapturedOutput;
using tavix::test::Client;
using tavix::test::Configure;
using tavix::test::LinesOf;
using tavix::test::LogManager;
using tavix::test::Mode;
using tavix::test::StoreInMode;
using tavix::test::TemporaryDirectory;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::ThrowsMessage;
using Manager = tavix::settings::LogManager;

constexpr char kDefaults[] = "[Log]\nlog.level=3\nlog.stdout=false\nlog.syslog=true\nusing_defs=false\n";
constexpr char kToStandardOutput[] = "[Log]\nlog.level=6\nlog.stdout=true\nlog.syslog=false\n";
constexpr char kSubscriptionFailure[] =
    "ERROR LogManager: Failed to subscribe to log settings - probably created TavixSettingsClient in SingleThreaded "
    "mode instead of MultiThreaded";

// What the system log is given is shown on standard error, too.
class ShownSystemLog {
 public:
  ShownSystemLog() { openlog("shown", LOG_PERROR, LOG_USER); }
  ~ShownSystemLog() {
    closelog();
    openlog(nullptr, 0, LOG_USER);
  }

  std::string Finish() { return _output.Finish(); }

 private:
  CapturedOutput _output{STDERR_FILENO};
};

TEST_F(LogManager, ANullClientOrNameIsRefused) {
  Client client(Client::Local);
  EXPECT_THAT([&] { Manager(nullptr, "Log"); }, ThrowsMessage<Exception>("client was NULL"));
  EXPECT_THAT([&] { Manager(&client, nullptr); }, ThrowsMessage<Exception>("name was NULL"));
}

TEST_F(LogManager, AStoreWithoutTheGroupIsGivenTheFourDefaults) {
  ShownSystemLog systemLog;
  for (const Mode mode : tavix::test::kAllModes) {
    StoreInMode store(mode, "[Other]\nx=1\n");
    const Manager manager(store.GetClient(), "Log");
    EXPECT_EQ(store.Read("*"), std::string(kDefaults) + "[Other]\nx=1\n");
  }
}

TEST_F(LogManager, TheDefaultsMeanErrorsToTheSystemLogAndNothingToStandardOutput) {
  StoreInMode store(Client::Local);
  ShownSystemLog systemLog;
  _log->Information("before");
  const Manager manager(store.GetClient(), "Log");
  _log->Warning("dropped");
  _log->Error("written");
  EXPECT_EQ(systemLog.Finish(), "shown: Test: written\n");
  EXPECT_THAT(WrittenLines(), ElementsAre("INFO Test: before", "INFO LogManager: Reconfiguring logging"));
}

TEST_F(LogManager, TheDefaultsAreWrittenIntoWhatTheGroupHoldsAlready) {
  AnsweringServer server("[Log]\nlog.file=own.log\nlog.stdout=true\nnote=mine\n");
  const Manager manager(server.GetClient(), "Log");
  server.AwaitArrival();
  EXPECT_THAT(server.GetRequests(),
              ElementsAre("get delimited\nLog\n.\n",
                          "merge\n[Log]\nlog.file=own.log\nlog.level=3\nlog.stdout=false\nlog.syslog=true\nnote=mine\n"
                          "using_defs=false\n.\n",
                          "subscribe\nLog\n.\n"));
}

TEST_F(LogManager, AGroupThatHoldsALevelIsLeftAsItIs) {
  for (const Mode mode : tavix::test::kAllModes) {
    for (const char* settings : {"[Log]\nlog.level=4\n", "[Log]\nlog.level=\n", "[Log]\nlog.level=loud\n"}) {
      StoreInMode store(mode, settings);
      const Manager manager(store.GetClient(), "Log");
      EXPECT_EQ(store.Read("*"), settings);
    }
  }
}

TEST_F(LogManager, NothingIsWrittenToTheStoreWhenTheGroupHoldsALevel) {
  AnsweringServer server("[Log]\nlog.level=4\n");
  const Manager manager(server.GetClient(), "Log");
  server.AwaitArrival();
  EXPECT_THAT(server.GetRequests(), ElementsAre("get delimited\nLog\n.\n", "subscribe\nLog\n.\n"));
}

TEST_F(LogManager, TheGroupIsInForceAtOnce) {
  for (const Mode mode : tavix::test::kAllModes) {
    StoreInMode store(mode, "[Log]\nlog.level=4\nlog.stdout=true\nlog.syslog=false\n");
    const Manager manager(store.GetClient(), "Log");
    EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogWarning));
    EXPECT_FALSE(Logger::IsEnabled(tavix::core::kLogInformation));
  }
}

TEST_F(LogManager, SaysWhatItDoes) {
  StoreInMode store(Client::Local, kToStandardOutput);
  const Manager manager(store.GetClient(), "Log");
  EXPECT_THAT(WrittenLines(),
              ElementsAre("INFO LogManager: Reconfiguring logging", "INFO LogManager: Finished reconfiguring logging"));
}

TEST_F(LogManager, AChangeInTheStoreReconfigures) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    StoreInMode store(mode, "[Log]\nlog.level=3\nlog.syslog=false\n");
    const Manager manager(store.GetClient(), "Log");
    store.Merge("[Log]\nlog.level=8\n");
    EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogTrace));
    store.Merge("[Log]\nlog.level=3\n");
    EXPECT_FALSE(Logger::IsEnabled(tavix::core::kLogWarning));
    store.Merge("[Other]\nlog.level=8\n");
    EXPECT_FALSE(Logger::IsEnabled(tavix::core::kLogWarning));
  }
}

TEST_F(LogManager, AChangeIsAnnouncedAndFinishedInTheLog) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    StoreInMode store(mode, kToStandardOutput);
    const Manager manager(store.GetClient(), "Log");
    CapturedOutput output(STDOUT_FILENO);
    store.Merge("[Log]\nnote=changed\n");
    EXPECT_THAT(LinesOf(output.Finish()), ElementsAre("INFO LogManager: Reconfiguring logging",
                                                      "INFO LogManager: Finished reconfiguring logging"));
  }
}

// Deliberate: defaults are written when a log manager is made, and only then.
TEST_F(LogManager, AGroupThatIsErasedMeansErrorsToTheSystemLogAndStaysErased) {
  ShownSystemLog systemLog;
  for (const Mode mode : tavix::test::kSubscribingModes) {
    StoreInMode store(mode, kToStandardOutput);
    const Manager manager(store.GetClient(), "Log");
    store.Erase("Log");
    _log->Error("%d", mode);
    EXPECT_FALSE(Logger::IsEnabled(tavix::core::kLogWarning));
    EXPECT_EQ(store.Read("Log"), "");
  }
  EXPECT_EQ(systemLog.Finish(), "shown: Test: 0\nshown: Test: 2\nshown: Test: 4\n");
}

TEST_F(LogManager, WithoutALogFileThereIsNoFile) {
  StoreInMode store(Client::Local, kToStandardOutput);
  const Manager manager(store.GetClient(), "Log");
  _log->Error("text");
  store.Merge("[Log]\nnote=changed\n");
  _log->Error("more");
  EXPECT_TRUE(std::filesystem::is_empty(_directory.GetPath()));
}

TEST_F(LogManager, ALogFileInOrBelowTheDirectoryIsWritten) {
  std::filesystem::create_directories(_directory.Path("below"));
  for (const std::string& file : {std::string("a.log"), _directory.Path("b.log"), _directory.Path("below/c.log")}) {
    StoreInMode store(Client::Local, "[Log]\nlog.level=3\nlog.syslog=false\nlog.file=" + file + "\n");
    const Manager manager(store.GetClient(), "Log");
    _log->Error("text");
  }
  for (const char* file : {"a.log", "b.log", "below/c.log"})
    EXPECT_THAT(LinesInFiles(file), ElementsAre("ERROR Test: text")) << file;
}

TEST_F(LogManager, AChangeCanOpenMoveAndCloseTheLogFile) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    const std::string first = "first" + std::to_string(mode);
    const std::string second = "second" + std::to_string(mode);
    StoreInMode store(mode, "[Log]\nlog.level=3\nlog.syslog=false\n");
    const Manager manager(store.GetClient(), "Log");
    _log->Error("nowhere");
    store.Merge("[Log]\nlog.file=" + first + "\n");
    _log->Error("to the first");
    store.Merge("[Log]\nlog.file=" + second + "\n");
    _log->Error("to the second");
    store.Overwrite("Log", "[Log]\nlog.level=3\nlog.syslog=false\n");
    _log->Error("nowhere any more");
    EXPECT_THAT(LinesInFiles(first), ElementsAre("ERROR Test: to the first"));
    EXPECT_THAT(LinesInFiles(second), ElementsAre("ERROR Test: to the second"));
  }
}

TEST_F(LogManager, TheLogFileIsRotatedAndReconfiguringAddsToIt) {
  StoreInMode store(Client::Local, "[Log]\nlog.level=3\nlog.syslog=false\nlog.file=tavix.log\n");
  const Manager manager(store.GetClient(), "Log");
  const std::string filler(950, 'x');
  for (int i = 0; i < 1500; ++i) {
    if (i % 100 == 0) store.Merge("[Log]\nnote=" + std::to_string(i) + "\n");
    _log->Error("%d %s", i, filler.c_str());
  }
  EXPECT_TRUE(_directory.Has("tavix.log.1"));
  EXPECT_FALSE(_directory.Has("tavix.log.2"));
  const std::vector<std::string> lines = LinesInFiles("tavix.log");
  ASSERT_EQ(lines.size(), 1500u);
  for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i], "ERROR Test: " + std::to_string(i) + " " + filler);
}

TEST_F(LogManager, ALogFileThatWasMovedAwayIsMadeAgain) {
  StoreInMode store(Client::Local, "[Log]\nlog.level=3\nlog.syslog=false\nlog.file=tavix.log\n");
  const Manager manager(store.GetClient(), "Log");
  _log->Error("before");
  std::filesystem::rename(_directory.Path("tavix.log"), _directory.Path("moved"));
  _log->Error("after");
  EXPECT_THAT(LinesInFiles("moved"), ElementsAre("ERROR Test: before"));
  EXPECT_THAT(LinesInFiles("tavix.log"), ElementsAre("ERROR Test: after"));
}

TEST_F(LogManager, ALogFileThatMayNotBeUsedIsRefusedWithAWarningAndLoggingGoesOn) {
  const TemporaryDirectory elsewhere;
  const std::string target = elsewhere.Write("target", "precious");
  std::filesystem::create_symlink(target, _directory.Path("link"));
  std::filesystem::create_symlink(elsewhere.GetPath(), _directory.Path("linked"));
  for (const std::string& file : {elsewhere.Path("new"), std::string("../new"), _directory.Path("../new"),
                                  _directory.Path("linked/new"), std::string("link"), std::string("..")}) {
    CapturedOutput output(STDOUT_FILENO);
    StoreInMode store(Client::Local, kToStandardOutput);
    const Manager manager(store.GetClient(), "Log");
    store.Merge("[Log]\nlog.file=" + file + "\n");
    _log->Error("goes on");
    const std::vector<std::string> lines = LinesOf(output.Finish());
    EXPECT_THAT(lines, Contains(testing::AllOf(testing::StartsWith("WARNING Logger: "), HasSubstr("'" + file + "'"),
                                               EndsWith(" (log.file of group 'Log')"))));
    EXPECT_EQ(lines.back(), "ERROR Test: goes on");
  }
  EXPECT_EQ(elsewhere.Read("target"), "precious");
  EXPECT_FALSE(elsewhere.Has("new"));
}

TEST_F(LogManager, ASingleThreadedClientIsNoErrorButOneIsLogged) {
  for (const Mode mode : tavix::test::kSingleThreadedModes) {
    StoreInMode store(mode, "[Log]\nlog.level=4\nlog.stdout=true\nlog.syslog=false\n");
    Configure("4", "true");
    CapturedOutput output(STDOUT_FILENO);
    const Manager manager(store.GetClient(), "Log");
    _log->Warning("goes on");
    store.Merge("[Log]\nlog.level=8\n");
    _log->Trace("not followed");
    EXPECT_THAT(LinesOf(output.Finish()), ElementsAre(kSubscriptionFailure, "WARNING Test: goes on"));
  }
}

TEST_F(LogManager, AGroupThatCantBeReadIsTheCallersErrorAndLeavesLoggingAlone) {
  AnsweringServer server(kToStandardOutput);
  server.Disconnect();
  EXPECT_THROW(Manager(server.GetClient(), "Log"), Exception);
  EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogTrace));
  EXPECT_THAT(WrittenLines(), Not(Contains(HasSubstr("LogManager"))));
}

TEST_F(LogManager, AReplyThatIsNoSettingsTextIsTheCallersErrorToo) {
  tavix::test::ScriptedServer server;
  Client client(Client::MultiThreaded);
  BackgroundCall construction([&] { Manager(&client, "Log"); });
  tavix::test::ServerEnd peer = server.Accept();
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nLog\n.\n");
  peer.Send("data\nno settings text\n.\n");
  EXPECT_THAT([&] { construction.Join(); }, ThrowsMessage<Exception>("The log settings 'Log' could not be read"));
}

TEST_F(LogManager, OnceItIsDestroyedLoggingStaysAsItIs) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    StoreInMode store(mode, kToStandardOutput);
    auto manager = std::make_unique<Manager>(store.GetClient(), "Log");
    manager.reset();
    EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogInformation));
    store.Merge("[Log]\nlog.level=3\n");
    EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogInformation));
  }
}

TEST_F(LogManager, MayBeDestroyedFromACallbackOfTheSameClient) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    StoreInMode store(mode, kToStandardOutput);
    auto manager = std::make_unique<Manager>(store.GetClient(), "Log");
    tavix::test::RecordingCallback callback([&] { manager.reset(); });
    tavix::settings::Subscription subscription(store.GetClient(), &callback);
    subscription.Subscribe({"Other"});
    store.Merge("[Other]\nx=1\n");
    EXPECT_EQ(manager, nullptr);
    store.Merge("[Log]\nlog.level=3\n");
    EXPECT_TRUE(Logger::IsEnabled(tavix::core::kLogInformation));
  }
}

constexpr int kRounds = 15;
constexpr int kThreads = 4;
constexpr int kLines = 50;  // of all threads together fewer than are kept while there is no output

std::string LineOf(int round, int thread, int line) {
  return std::to_string(round) + ' ' + std::to_string(thread) + ' ' + std::to_string(line) + '.';
}

// The lines that are not exactly once among those that were written, and those that nobody logged.
std::vector<std::string> FindWrongLines(std::vector<std::string> written) {
  std::vector<std::string> logged, wrong;
  for (int round = 0; round < kRounds; ++round) {
    for (int thread = 0; thread < kThreads; ++thread) {
      for (int line = 0; line < kLines; ++line) logged.push_back("ERROR Test: " + LineOf(round, thread, line));
    }
  }
  std::sort(logged.begin(), logged.end());
  std::sort(written.begin(), written.end());
  std::set_symmetric_difference(logged.begin(), logged.end(), written.begin(), written.end(),
                                std::back_inserter(wrong));
  return wrong;
}

TEST_F(LogManager, ReconfiguringWhileOtherThreadsLogLosesAndTearsNoLine) {
  for (const Mode mode : tavix::test::kSubscribingModes) {
    const std::string file = "log" + std::to_string(mode);
    StoreInMode store(mode, "[Log]\nlog.level=3\nlog.syslog=false\nlog.file=" + file + "\n");
    const Manager manager(store.GetClient(), "Log");
    for (int round = 0; round < kRounds; ++round) {
      std::vector<std::unique_ptr<BackgroundCall>> threads;
      for (int thread = 0; thread < kThreads; ++thread) {
        threads.push_back(std::make_unique<BackgroundCall>([this, round, thread] {
          for (int line = 0; line < kLines; ++line) _log->Error("%s", LineOf(round, thread, line).c_str());
        }));
      }
      store.Merge("[Log]\nnote=" + std::to_string(round) + "\n");
    }
    EXPECT_THAT(FindWrongLines(LinesInFiles(file)), IsEmpty());
  }
}

}  // namespace
