#include "tavix/settings/client/TavixSettingsTcpConnection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <istream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/LogOf.h"
#include "tests/support/OwnSockets.h"
#include "tests/support/Patience.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::osa::Exception;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::BackgroundCall;
using tavix::test::ElapsedTime;
using tavix::test::ListeningSocket;
using tavix::test::LogOf;
using tavix::test::MillisecondsOf;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;

constexpr char kFailed[] = "Failed to connect to tavix-settings-server";
constexpr char kWarning[] = "WARNING TavixSettingsConnection: Failed to connect to tavix-settings-server";
constexpr char kRetrying[] = "INFO TavixSettingsConnection: Retrying connection";

TEST(TavixSettingsTcpConnection, DoesNotConnectByItself) {
  ScriptedServer server;
  const TavixSettingsTcpConnection connection;
  EXPECT_FALSE(connection.IsReady());
  EXPECT_EQ(connection.GetIstream(), nullptr);
  EXPECT_EQ(connection.GetOstream(), nullptr);
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsTcpConnection, ConnectsToTheServerAndCarriesBytesBothWays) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  ASSERT_TRUE(connection.IsReady());
  ServerEnd peer = server.Accept();
  *connection.GetOstream() << "request" << std::endl;
  EXPECT_EQ(peer.ReadThrough("request"), "request\n");
  peer.Send("reply\n");
  std::string line;
  EXPECT_TRUE(std::getline(*connection.GetIstream(), line));
  EXPECT_EQ(line, "reply");
}

TEST(TavixSettingsTcpConnection, AReadyConnectionIsLeftAsItIs) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  const ServerEnd peer = server.Accept();
  const auto* before = connection.GetIstream();
  for (const int attempts : {0, 1, 3}) connection.EnsureConnection(attempts);
  EXPECT_EQ(connection.GetIstream(), before);
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsTcpConnection, NoAttemptsMeansToFailAtOnce) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  EXPECT_THAT([&] { connection.EnsureConnection(0); }, testing::ThrowsMessage<Exception>(kFailed));
  EXPECT_FALSE(server.HasWaitingConnection());
  EXPECT_THAT(LogOf([&] { EXPECT_THROW(connection.EnsureConnection(0), Exception); }), testing::ElementsAre(kWarning));
}

TEST(TavixSettingsTcpConnection, TriesAsOftenAsAskedASecondApart) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  TavixSettingsTcpConnection connection;
  long took = 0;
  const auto messages = LogOf([&] {
    took = MillisecondsOf(
        [&] { EXPECT_THAT([&] { connection.EnsureConnection(3); }, testing::ThrowsMessage<Exception>(kFailed)); });
  });
  EXPECT_GE(took, 2000);
  if (tavix::test::IsLongRun()) {
    EXPECT_LT(took, 5000);
  }
  const auto reason = testing::StartsWith("TRACE TavixSettingsConnection: Failed to connect to 127.0.0.1 port ");
  const auto outage = testing::StartsWith("WARNING TavixSettingsConnection: Failed to connect to 127.0.0.1 port ");
  EXPECT_THAT(messages, testing::ElementsAre(reason, kWarning, kRetrying, reason, kWarning, kRetrying, reason, kWarning,
                                             kRetrying, kWarning, outage));
  EXPECT_FALSE(connection.IsReady());
}

TEST(TavixSettingsTcpConnection, DescribesWhyThereIsNoConnectionUntilThereIsOne) {
  ScriptedServer server(ListeningSocket::kNotListening);
  TavixSettingsTcpConnection connection;
  EXPECT_EQ(connection.DescribeFailure(), "");
  EXPECT_THROW(connection.EnsureConnection(1), Exception);
  EXPECT_THAT(connection.DescribeFailure(),
              testing::MatchesRegex("Failed to connect to 127\\.0\\.0\\.1 port " + std::to_string(server.GetPort()) +
                                    ": Connection refused \\(tried for [0-9]+\\.[0-9] s\\)"));
  server.Listen();
  connection.EnsureConnection(1);
  EXPECT_EQ(connection.DescribeFailure(), "");
}

TEST(TavixSettingsTcpConnection, LogsEachOutageOnceInDetail) {
  TavixSettingsTcpConnection connection;
  const auto messages = LogOf([&] {
    for (int outage = 0; outage < 2; ++outage) {
      ScriptedServer server(ListeningSocket::kNotListening);
      for (int i = 0; i < 3; ++i) EXPECT_THROW(connection.EnsureConnection(1), Exception);
      server.Listen();
      connection.EnsureConnection(1);
      connection.CloseConnection();
      connection.ClearStreams();
    }
  });
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [](const std::string& message) {
                            return message.rfind("WARNING TavixSettingsConnection: Failed to connect to 127.", 0) == 0;
                          }),
            2);
}

TEST(TavixSettingsTcpConnection, LogsAnOutageAgainWhenItsReasonChanges) {
  TavixSettingsTcpConnection connection;
  const auto messages = LogOf([&] {
    for (const char* endpoint : {"unix:/nowhere/first", "unix:/nowhere/second"}) {
      const tavix::test::ScopedEnvironment variable("TAVIX_SETTINGS_SERVER", endpoint);
      for (int i = 0; i < 2; ++i) EXPECT_THROW(connection.EnsureConnection(1), Exception);
    }
  });
  const auto outage = [](const std::string& path) {
    return testing::StartsWith("WARNING TavixSettingsConnection: Failed to connect to unix:" + path);
  };
  std::vector<std::string> outages;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(outages),
               [](const std::string& message) { return message.rfind("WARNING", 0) == 0 && message != kWarning; });
  EXPECT_THAT(outages, testing::ElementsAre(outage("/nowhere/first"), outage("/nowhere/second")));
}

TEST(TavixSettingsTcpConnection, AForkedProcessLogsAnOutageItself) {
  const tavix::test::ScopedEnvironment variable("TAVIX_SETTINGS_SERVER", "unix:/nowhere/server");
  TavixSettingsTcpConnection connection;
  EXPECT_THROW(connection.EnsureConnection(1), Exception);
  const auto messages = LogOf([&] {
    const pid_t child = fork();
    if (child == 0) {
      alarm(static_cast<unsigned int>(tavix::test::kPatience.count()));
      try {
        connection.EnsureConnection(1);
      } catch (const Exception&) {
        _exit(EXIT_SUCCESS);
      }
      _exit(EXIT_FAILURE);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS);
  });
  EXPECT_THAT(messages, testing::Contains(testing::StartsWith(
                            "WARNING TavixSettingsConnection: Failed to connect to unix:/nowhere/server")));
}

TEST(TavixSettingsTcpConnection, LogsAVariableThatCanBeNoAddressOnceAsAnError) {
  TavixSettingsTcpConnection connection;
  const auto messages = LogOf([&] {
    for (const char* wrong : {"127.0.0.1:notaport", "unix:"}) {
      const tavix::test::ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER", wrong);
      for (int i = 0; i < 3; ++i) EXPECT_THROW(connection.EnsureConnection(1), Exception);
    }
  });
  std::vector<std::string> loud;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(loud), [](const std::string& message) {
    return message != kWarning && message != kRetrying && message.rfind("TRACE", 0) != 0;
  });
  EXPECT_THAT(loud,
              testing::ElementsAre(
                  "ERROR TavixSettingsConnection: TAVIX_SETTINGS_SERVER: '127.0.0.1:notaport' is not an endpoint: "
                  "the port must be a number from 1 to 65535",
                  "ERROR TavixSettingsConnection: TAVIX_SETTINGS_SERVER: 'unix:' is not an endpoint: the path must "
                  "have 1 to 107 bytes"));
  EXPECT_THAT(connection.DescribeFailure(), testing::StartsWith("TAVIX_SETTINGS_SERVER: 'unix:' is not an endpoint"));
}

TEST(TavixSettingsTcpConnection, AServerThatComesUpMeanwhileIsFoundByALaterAttempt) {
  ScriptedServer server(ListeningSocket::kNotListening);
  TavixSettingsTcpConnection connection;
  BackgroundCall connect([&] { connection.EnsureConnection(1000); });
  connect.AwaitBlocked();
  server.Listen();
  const ServerEnd peer = server.Accept();
  connect.Join();
  EXPECT_TRUE(connection.IsReady());
}

TEST(TavixSettingsTcpConnection, AnEndpointThatCannotBeUnderstoodIsAFailedAttempt) {
  const tavix::test::ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER", "127.0.0.1:notaport");
  TavixSettingsTcpConnection connection;
  EXPECT_THAT([&] { connection.EnsureConnection(1); }, testing::ThrowsMessage<Exception>(kFailed));
}

// The pointers are the owner's to clear, who may still be told by them that there was a connection.
TEST(TavixSettingsTcpConnection, ClosingEndsTheConnectionAndLeavesThePointersToTheOwner) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  ServerEnd peer = server.Accept();
  connection.CloseConnection();
  EXPECT_EQ(peer.ReadToEnd(), "");
  EXPECT_TRUE(connection.IsReady());
  connection.ClearStreams();
  EXPECT_FALSE(connection.IsReady());
  EXPECT_NO_THROW(connection.CloseConnection());
  connection.EnsureConnection(1);
  EXPECT_TRUE(connection.IsReady());
}

TEST(TavixSettingsTcpConnection, AStreamThatFailedIsReplacedByANewConnection) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  for (int round = 0; round < 3; ++round) {
    connection.EnsureConnection(1);
    server.Accept().Close();
    std::string line;
    EXPECT_FALSE(std::getline(*connection.GetIstream(), line));
  }
  connection.EnsureConnection(1);
  ServerEnd first = server.Accept();
  connection.GetOstream()->setstate(std::ios::badbit);
  connection.EnsureConnection(1);
  ServerEnd second = server.Accept();
  EXPECT_EQ(first.ReadToEnd(), "");
}

TEST(TavixSettingsTcpConnection, TheDestructorCloses) {
  ScriptedServer server;
  auto connection = std::make_unique<TavixSettingsTcpConnection>();
  connection->EnsureConnection(1);
  ServerEnd peer = server.Accept();
  connection.reset();
  EXPECT_EQ(peer.ReadToEnd(), "");
}

TEST(TavixSettingsTcpConnection, BreakingWakesAReader) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  const ServerEnd peer = server.Accept();
  BackgroundCall reader([&] {
    std::string line;
    EXPECT_FALSE(std::getline(*connection.GetIstream(), line));
  });
  reader.AwaitBlocked();
  connection.BreakConnection();
  reader.Join();
}

TEST(TavixSettingsTcpConnection, BreakingWakesAWriter) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  const ServerEnd peer = server.Accept();
  BackgroundCall writer([&] {
    *connection.GetOstream() << std::string(64 << 20, 'x') << std::flush;
    EXPECT_TRUE(connection.GetOstream()->fail());
  });
  writer.AwaitBlocked();
  EXPECT_FALSE(writer.HasEnded());
  connection.BreakConnection();
  writer.Join();
}

TEST(TavixSettingsTcpConnection, ABrokenConnectionCanBeMadeAgain) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  EXPECT_NO_THROW(connection.BreakConnection());
  connection.EnsureConnection(1);
  connection.BreakConnection();
  EXPECT_EQ(connection.GetIstream()->get(), EOF);
  EXPECT_NO_THROW(connection.EnsureConnection(1));
}

// The pauses that are left would take a quarter of an hour.
TEST(TavixSettingsTcpConnection, AbortingEndsThePauseBetweenAttemptsAndAllFurtherOnes) {
  ScriptedServer server(ListeningSocket::kNotListening);
  TavixSettingsTcpConnection connection;
  BackgroundCall connect(
      [&] { EXPECT_THAT([&] { connection.EnsureConnection(1000); }, testing::ThrowsMessage<Exception>(kFailed)); });
  connect.AwaitBlocked();
  connection.AbortConnection();
  connect.Join();
  server.Listen();
  EXPECT_THROW(connection.EnsureConnection(1), Exception);
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsTcpConnection, AbortingWakesAReader) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  const ServerEnd peer = server.Accept();
  BackgroundCall reader([&] { EXPECT_EQ(connection.GetIstream()->get(), EOF); });
  reader.AwaitBlocked();
  connection.AbortConnection();
  reader.Join();
}

TEST(TavixSettingsTcpConnection, WritesMayGoTenSecondsWithoutProgressAndReadsForEver) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  connection.EnsureConnection(1);
  const int descriptor = tavix::test::FindConnectionsTo(server.GetPort()).at(0);
  timeval limit{};
  socklen_t size = sizeof limit;
  EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec, 10);
  EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec, 0);
}

TEST(TavixSettingsTcpConnection, AWriteToAPeerThatStoppedReadingEndsWithinItsLimit) {
  ScriptedServer server;
  TavixSettingsTcpConnection connection;
  EXPECT_NO_THROW(connection.LimitWrites(1));
  connection.EnsureConnection(1);
  const ServerEnd peer = server.Accept();
  connection.LimitWrites(100);
  const std::string large(64 << 20, 'x');
  const ElapsedTime took([&] { *connection.GetOstream() << large << std::flush; });
  EXPECT_TRUE(connection.GetOstream()->fail());
  EXPECT_GE(took.milliseconds, 100);
  EXPECT_LT(took.undisturbed, 9000);  // and not within the ten seconds that it began with
}

}  // namespace
