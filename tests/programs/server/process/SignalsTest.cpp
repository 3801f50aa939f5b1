#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/NotifySocket.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/Environment.h"
#include "tests/support/RunLength.h"

// What signals do beside ending the daemon, and that no order of them does harm.

namespace tavix::test {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char kReadAgain[] =
    "NOTICE Upkeep: SIGHUP: the log options were read again; everything else, defaults included, needs a restart\n";

class Signals : public testing::Test {
 protected:
  std::vector<std::string> Configure(const std::string& keys) const {
    _directory.Write("server.conf", "[Server]\n" + keys);
    return {"--config", "server.conf"};
  }

  const TemporaryDirectory _directory;
};

// More than is loaded in a moment.
std::string LargeSettings() {
  std::string text;
  for (int group = 0; group < 20000; ++group) {
    text += "[Group" + std::to_string(group) + "]\n";
    for (int key = 0; key < 10; ++key) text += "key" + std::to_string(key) + "=value\n";
  }
  return text;
}

}  // namespace

TEST_F(Signals, Usr1LogsHowOftenEachCommandWasHandledAgainAndAgain) {
  Daemon daemon(_directory, {"--log-level", "notice"});
  ProtocolClient client(daemon.GetPort());
  for (const char* count : {"1", "2"}) {
    client.AwaitHandled();
    daemon.AwaitIdle();  // what is counted is counted behind the reply
    daemon.Signal(SIGUSR1);
    daemon.AwaitErrors("NOTICE core: ClientHandler stats: dispatch get count " + std::string(count) + "\n");
    daemon.AwaitErrors("NOTICE core: ClientHandler stats: dispatch test-and-merge count 0\n");
  }
}

TEST_F(Signals, HupReadsTheLogOptionsAgainAndSaysWhatNeedsARestart) {
  Daemon daemon(_directory, Configure("log-level=error\n"));
  Converse(daemon.GetPort(), "bogus\n");
  Configure("log-level=warning\n");
  daemon.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([&] {
    Converse(daemon.GetPort(), "seen\n");
    return daemon.GetErrors().find("WARNING MsgDispatcher: Invalid command: seen\n") != std::string::npos;
  }));
  EXPECT_THAT(daemon.GetErrors(), Not(HasSubstr("bogus")));
  Configure("log-level=notice\n");
  daemon.Signal(SIGHUP);
  daemon.AwaitErrors(kReadAgain);
}

TEST_F(Signals, HupIsAnsweredThoughTheNewLevelHidesTheAnswer) {
  Daemon daemon(_directory, Configure("log-level=notice\n"));
  daemon.AwaitAddresses();
  Configure("log-level=error\n");
  daemon.Signal(SIGHUP);
  daemon.AwaitErrors(kReadAgain);
}

TEST_F(Signals, WhatTheCommandLineSaysOfTheLogStaysAtAHup) {
  std::vector<std::string> arguments = Configure("log-level=trace\n");
  arguments.insert(arguments.end(), {"--log-level", "notice"});
  Daemon daemon(_directory, arguments);
  daemon.AwaitAddresses();
  daemon.Signal(SIGHUP);
  daemon.AwaitErrors(kReadAgain);
  Converse(daemon.GetPort(), "get\n.\n");
  EXPECT_THAT(daemon.GetErrors(), Not(HasSubstr("TRACE")));
}

TEST_F(Signals, ConfigurationThatIsWrongAtAHupChangesNothing) {
  Daemon daemon(_directory, Configure("log-level=warning\n"));
  daemon.AwaitAddresses();
  Configure("log-level=loud\n");
  daemon.Signal(SIGHUP);
  daemon.AwaitErrors(
      "ERROR Upkeep: SIGHUP: server.conf: log-level 'loud': expected error, warning, notice, information or trace; the "
      "log options stay as they were\n");
  Converse(daemon.GetPort(), "bogus\n");
  daemon.AwaitErrors("WARNING MsgDispatcher: Invalid command: bogus\n");
}

TEST_F(Signals, LogFileThatCanNotBeOpenedAtAHupChangesNothing) {
  const std::string file = _directory.Path("d.log");
  const std::string gone = _directory.Path("gone/d.log");
  Daemon daemon(_directory, Configure("log-stderr=false\nlog-file=" + file + "\n"));
  daemon.AwaitAddresses();
  Configure("log-stderr=false\nlog-file=" + gone + "\n");
  daemon.Signal(SIGHUP);
  const std::string error = "ERROR Upkeep: SIGHUP: Failed to open log file '" + gone +
                            "': No such file or directory; the log options stay as they were\n";
  EXPECT_TRUE(Eventually([&] { return _directory.Read("d.log").find(error) != std::string::npos; }));
  Converse(daemon.GetPort(), "bogus\n");
  EXPECT_THAT(_directory.Read("d.log"), AllOf(HasSubstr("Invalid command: bogus\n"), Not(HasSubstr("read again"))));
  EXPECT_EQ(daemon.GetErrors(), "");
}

TEST_F(Signals, LogFileIsWrittenAndMadeAgainAtAHupAfterItWasMovedAway) {
  Daemon daemon(_directory, Configure("log-stderr=false\nlog-file=" + _directory.Path("d.log") + "\n"));
  Converse(daemon.GetPort(), "first\n");
  EXPECT_THAT(_directory.Read("d.log"), HasSubstr("Invalid command: first\n"));
  ASSERT_EQ(std::rename(_directory.Path("d.log").c_str(), _directory.Path("old.log").c_str()), 0);
  daemon.Signal(SIGHUP);
  // It is there a moment before it is the one that is written.
  EXPECT_TRUE(Eventually([&] {
    Converse(daemon.GetPort(), "second\n");
    return _directory.Has("d.log") && _directory.Read("d.log").find("Invalid command: second\n") != std::string::npos;
  }));
  EXPECT_THAT(_directory.Read("d.log"), Not(HasSubstr("first")));
  EXPECT_EQ(daemon.GetErrors(), "");
}

TEST_F(Signals, EveryOrderOfThemTwiceEndsTheDaemonWell) {
  std::vector<int> order{SIGHUP, SIGINT, SIGUSR1, SIGTERM};
  std::sort(order.begin(), order.end());
  do {
    Daemon daemon(_directory, {"--user-settings", "user.ini", "--metrics-file", "metrics.prom"});
    Converse(daemon.GetPort(), "merge\n[A]\nx=1\n.\n");
    for (const int signal : order) {
      daemon.Signal(signal);
      daemon.Signal(signal);
    }
    const long took = MillisecondsOf([&] { EXPECT_EQ(daemon.AwaitEnd(), 0); });
    if (IsLongRun()) {
      EXPECT_LT(took, 2000);
    }
    EXPECT_THAT(_directory.Read("user.ini"), HasSubstr("[A]\nx=1\n"));
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Signals, ThoseThatTellSomethingDoNotDisturbClients) {
  Daemon daemon(_directory);
  ProtocolClient client(daemon.GetPort());
  for (int i = 0; i < 200; ++i) {
    daemon.Signal(i % 2 == 0 ? SIGHUP : SIGUSR1);
    client.AwaitHandled();
  }
}

TEST_F(Signals, DuringTheStartAreAnsweredOnceTheDaemonServes) {
  _directory.Write("large.ini", LargeSettings());
  NotifySocket manager;
  const ScopedEnvironment notify("NOTIFY_SOCKET", manager.GetPath().c_str());
  Daemon daemon(_directory, {"--defaults", "large.ini", "--log-level", "notice"});
  manager.Await("STATUS=Loading settings");
  for (const int signal : {SIGHUP, SIGUSR1, SIGHUP, SIGUSR1}) daemon.Signal(signal);
  daemon.AwaitErrors(kReadAgain);
  daemon.AwaitErrors("NOTICE core: ClientHandler stats: dispatch get count 0\n");
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(Signals, ToEndDuringTheStartEndsTheDaemonWell) {
  _directory.Write("large.ini", LargeSettings());
  for (const int signal : {SIGTERM, SIGINT}) {
    NotifySocket manager;
    const ScopedEnvironment notify("NOTIFY_SOCKET", manager.GetPath().c_str());
    Daemon daemon(_directory, {"--defaults", "large.ini", "--user-settings", "user.ini"});
    manager.Await("STATUS=Loading settings");
    for (const int one : {signal, SIGHUP, signal}) daemon.Signal(one);
    EXPECT_EQ(daemon.AwaitEnd(), 0);
    EXPECT_FALSE(_directory.Has("user.ini.lock"));
  }
}

// It has nothing to tidy up. Here it waits for somebody to read what it says.
TEST_F(Signals, EndACheckAtOnceWhateverItWaitsFor) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    DaemonProcess check(
        "/bin/sh", _directory.GetPath(),
        {"-c",
         "rm -f full; mkfifo full; exec 3<>full; dd if=/dev/zero of=full bs=4096 oflag=nonblock; echo is full >&2; "
         "exec \"$0\" --config /dev/null --check >full",
         ServerProgram()});
    check.AwaitErrors("is full\n");
    check.AwaitIdle();
    check.Signal(signal);
    EXPECT_EQ(check.AwaitEnd(), 128 + signal);
  }
}

TEST_F(Signals, DuringTheEndDoNoHarm) {
  NotifySocket manager;
  const ScopedEnvironment notify("NOTIFY_SOCKET", manager.GetPath().c_str());
  Daemon daemon(_directory, {"--user-settings", "user.ini"});
  Converse(daemon.GetPort(), "merge\n[A]\nx=1\n.\n");
  daemon.Signal(SIGTERM);
  manager.Await("STOPPING=1");
  for (const int signal : {SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGPIPE, SIGXFSZ}) daemon.Signal(signal);
  EXPECT_EQ(daemon.AwaitEnd(), 0);
  EXPECT_THAT(_directory.Read("user.ini"), HasSubstr("[A]\nx=1\n"));
}

}  // namespace tavix::test
