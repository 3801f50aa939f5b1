#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/settings/client/MultiThreadedExchange.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/FakeConnection.h"
#include "tests/support/LogOf.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::osa::LockException;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::test::Answer;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::ElapsedTime;
using tavix::test::Eventually;
using tavix::test::FakeConnection;
using tavix::test::kGetA;
using tavix::test::kMode;
using tavix::test::kReplyA;
using tavix::test::ListeningSocket;
using tavix::test::LogOf;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TextOf;
using Groups = std::set<std::string>;

TEST(TavixSettingsClientImplMultiThreaded, TheWorkerConnectsByItself) {
  ScriptedServer server;
  const TavixSettingsClient client(kMode);
  EXPECT_NO_THROW(server.Accept());
}

TEST(TavixSettingsClientImplMultiThreaded, QuitIsTheLastThingItSays) {
  ScriptedServer server;
  auto client = std::make_unique<TavixSettingsClient>(kMode);
  ServerEnd peer = server.Accept();
  client->MergeSettings(IniFile());
  BackgroundCall end([&] { client.reset(); });
  EXPECT_EQ(peer.ReadThrough("quit"), "merge\n.\nquit\n");
  peer.HalfClose();
  EXPECT_EQ(peer.ReadToEnd(), "");
  end.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, AnEmptyListOfSubscriptionsIsNotSent) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  client.MergeSettings(IniFile());
  EXPECT_EQ(server.Accept().ReadThrough(), "merge\n.\n");
}

TEST(TavixSettingsClientImplMultiThreaded, TheFirstRequestWaitsForTheConnection) {
  ScriptedServer server(ListeningSocket::kNotListening);
  TavixSettingsClient client(kMode);
  BackgroundCall merge([&] { client.MergeSettings(IniFile()); });
  merge.AwaitBlocked();
  EXPECT_FALSE(merge.HasEnded());
  server.Listen();
  EXPECT_EQ(server.Accept().ReadThrough(), "merge\n.\n");
  merge.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, WithoutAConnectionCallsTimeOutAfterTenSecondsAndLeaveNothingBehind) {
  ScriptedServer server(ListeningSocket::kNotListening);
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  const std::function<void()> calls[] = {[&] { client.MergeSettings(IniFile()); }, [&] { client.EraseGroups("A"); },
                                         [&] { client.RestoreToDefaults("A"); }, [&] { client.GetValue("[A]x"); },
                                         [&] { client.Subscribe(&callback, "A"); }};
  std::deque<BackgroundCall> waiting;
  const ElapsedTime took([&] {
    for (const auto& call : calls) waiting.emplace_back(call);
    for (BackgroundCall& call : waiting) {
      EXPECT_THAT([&] { call.Join(); },
                  testing::ThrowsMessage<LockException>(testing::MatchesRegex(
                      "Lock Timeout: no connection within 10000 ms: Failed to connect to 127\\.0\\.0\\.1 port " +
                      std::to_string(server.GetPort()) + ": Connection refused \\(tried for [0-9.]+ s\\)")));
    }
  });
  EXPECT_GE(took.milliseconds, 10000);
  EXPECT_LT(took.undisturbed, 20000);  // and not one behind another
  server.Listen();
  ServerEnd peer = server.Accept();
  client.MergeSettings(IniFile());
  EXPECT_EQ(peer.ReadThrough(), "merge\n.\n");
}

// The server reads nothing and answers nothing: nobody learns whether a change was made.
TEST(TavixSettingsClientImplMultiThreaded, AChangeReturnsOnceItIsWritten) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  client.MergeSettings(DocumentOf("[A]\nx=1\n"));
  client.EraseGroups("A");
  client.RestoreToDefaults("A");
  EXPECT_NO_THROW(server.Accept());
}

TEST(TavixSettingsClientImplMultiThreaded, AReplyIsMergedIntoTheCallersDocument) {
  ScriptedServer server;
  const TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  IniFile out = DocumentOf("[A]\nx=0\ny=0\n[B]\n");
  BackgroundCall get([&] { EXPECT_TRUE(client.GetSettings("A", out)); });
  Answer(peer);
  get.Join();
  EXPECT_EQ(TextOf(out), "[A]\nx=1\ny=0\n[B]\n");
}

TEST(TavixSettingsClientImplMultiThreaded, TheOutcomeOfTestAndMergeIsTrueForOkAlone) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  for (const std::string outcome : {"ok", "failure", "OK", "ok ", ""}) {
    bool merged = outcome != "ok";
    BackgroundCall call([&] { merged = client.TestAndMerge(IniFile(), IniFile()); });
    peer.ReadThrough(), peer.ReadThrough();
    peer.Send("result\n" + outcome + "\n");
    call.Join();
    EXPECT_EQ(merged, outcome == "ok") << outcome;
  }
}

TEST(TavixSettingsClientImplMultiThreaded, AReplysFirstWordCounts) {
  ScriptedServer server;
  const TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  PendingValue value(client);
  peer.ReadThrough();
  peer.Send("  data and more\r\n[A]\nx=1\n.\n");
  EXPECT_EQ(value.Join(), "1");
}

TEST(TavixSettingsClientImplMultiThreaded, ChangesAreSentWhileAnotherCallerWaits) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  PendingValue value(client);
  EXPECT_EQ(peer.ReadThrough(), kGetA);
  client.MergeSettings(IniFile());
  EXPECT_EQ(peer.ReadThrough(), "merge\n.\n");
  EXPECT_FALSE(value.HasEnded());
  peer.Send(kReplyA);
  EXPECT_EQ(value.Join(), "1");
}

TEST(TavixSettingsClientImplMultiThreaded, OneRequestThatAwaitsAReplyIsUnderWayAtATime) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  PendingValue first(client);
  EXPECT_EQ(peer.ReadThrough(), kGetA);
  PendingValue second(client, "[B]y");
  second.AwaitBlocked();
  client.MergeSettings(IniFile());
  EXPECT_EQ(peer.ReadThrough(), "merge\n.\n");
  peer.Send(kReplyA);
  EXPECT_EQ(first.Join(), "1");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nB\n.\n");
  peer.Send("data\n[B]\ny=2\n.\n");
  EXPECT_EQ(second.Join(), "2");
}

TEST(TavixSettingsClientImplMultiThreaded, LogsItsConnection) {
  ScriptedServer server;
  std::unique_ptr<TavixSettingsClient> client;
  EXPECT_THAT(LogOf([&] { client = std::make_unique<TavixSettingsClient>(kMode); }, 2),
              testing::ElementsAre("INFO TavixSettings: (re)Connecting to tavix-setting server",
                                   "INFO TavixSettings: Connected to tavix-settings-server, releasing semaphore"));
}

TEST(TavixSettingsClientImplMultiThreaded, LogsItsOperations) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  client.MergeSettings(IniFile());
  const auto messages = LogOf([&] {
    client.Subscribe(&callback, "A");
    client.MergeSettings(IniFile());
    client.EraseGroups("A");
    client.RestoreToDefaults("A");
  });
  EXPECT_THAT(messages,
              testing::ElementsAre("TRACE TavixSettings: Subscribe", "TRACE TavixSettings: MergeSettings",
                                   "TRACE TavixSettings: OverwriteSettings", "TRACE TavixSettings: RestoreToDefaults"));
}

TEST(TavixSettingsClientImplMultiThreaded, LogsALossUnderAWaitingCallerAndTheReconnect) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  client.Subscribe(&callback, Groups{"A", "B"});
  const auto messages = LogOf(
      [&] {
        BackgroundCall call([&] { client.TestAndMerge(IniFile(), IniFile()); });
        server.Accept().ReadThrough("test-and-merge");
      },
      6);
  EXPECT_THAT(messages, testing::UnorderedElementsAre(
                            "TRACE TavixSettings: TestAndMerge", "INFO TavixSettings: cleaning request queue",
                            "ERROR TavixSettings: TestAndMerge failed",
                            "INFO TavixSettings: (re)Connecting to tavix-setting server",
                            "INFO TavixSettings: Resubscribing 2 groups",
                            "INFO TavixSettings: Connected to tavix-settings-server, releasing semaphore"));
}

TEST(TavixSettingsClientImplMultiThreaded, LogsEachFailureToConnect) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  std::unique_ptr<TavixSettingsClient> client;
  auto messages = LogOf([&] { client = std::make_unique<TavixSettingsClient>(kMode); }, 15);
  messages.resize(15);
  const auto reason = testing::StartsWith("TRACE TavixSettingsConnection: Failed to connect to 127.0.0.1 port ");
  const char warning[] = "WARNING TavixSettingsConnection: Failed to connect to tavix-settings-server";
  const char retrying[] = "INFO TavixSettingsConnection: Retrying connection";
  EXPECT_THAT(
      messages,
      testing::ElementsAre("INFO TavixSettings: (re)Connecting to tavix-setting server",  //
                           reason, warning, retrying, reason, warning, retrying, reason, warning, retrying, warning,
                           testing::StartsWith("WARNING TavixSettingsConnection: Failed to connect to 127.0.0.1 port "),
                           "WARNING TavixSettings: Connect() failed: Failed to connect to tavix-settings-server",
                           "WARNING TavixSettings: Attempting to reconnect in 1 second",
                           "INFO TavixSettings: (re)Connecting to tavix-setting server"));
}

TEST(TavixSettingsClientImplMultiThreaded, ACallSaysThatTheVariableIsWrong) {
  const tavix::test::ScopedEnvironment noFile("TAVIX_SETTINGS_LOCALFILE", nullptr);
  const tavix::test::ScopedEnvironment wrong("TAVIX_SETTINGS_SERVER", "127.0.0.1:notaport");
  TavixSettingsClient client(kMode);
  EXPECT_THAT([&] { client.MergeSettings(IniFile()); },
              testing::ThrowsMessage<LockException>(testing::StartsWith(
                  "Lock Timeout: no connection within 10000 ms: TAVIX_SETTINGS_SERVER: '127.0.0.1:notaport' is not an "
                  "endpoint: the port must be a number from 1 to 65535 (tried for ")));
}

TEST(TavixSettingsClientImplMultiThreaded, AConnectThatFailsInAnyWayIsTriedAgain) {
  std::atomic<int> connects{0};
  const auto messages = LogOf([&] {
    TavixSettingsClientImplMultiThreaded client(new FakeConnection([&] {
      const int number = ++connects;
      if (number == 1) throw 42;
      if (number == 2) throw std::runtime_error("no luck");
    }));
    EXPECT_TRUE(Eventually([&] { return connects == 3; }));
    client.MergeSettings(IniFile(), 0);
  });
  EXPECT_EQ(connects, 3);
  EXPECT_THAT(messages, testing::IsSupersetOf({"WARNING TavixSettings: Connect() failed: unknown",
                                               "WARNING TavixSettings: Connect() failed: no luck"}));
}

TEST(TavixSettingsClientImplMultiThreaded, AWriteThatFailsNamesItsOperationAndWakesTheWorker) {
  const IniFile none;
  const struct {
    const char* name;
    std::function<void(TavixSettingsClientImplMultiThreaded&)> call;
  } cases[] = {
      {"GetSettings",
       [](auto& client) {
         IniFile out;
         client.GetSettings({"A"}, out);
       }},
      {"MergeSettings", [&](auto& client) { client.MergeSettings(none, 0); }},
      {"TestAndMerge", [&](auto& client) { client.TestAndMerge(none, none); }},
      {"OverwriteSettings", [&](auto& client) { client.OverwriteSettings({"A"}, none); }},
      {"RestoreToDefaults", [](auto& client) { client.RestoreToDefaults({"A"}); }},
  };
  for (const auto& each : cases) {
    auto* connection = new FakeConnection;
    TavixSettingsClientImplMultiThreaded client(connection);
    connection->requests.ClosePipe();
    EXPECT_THAT([&] { each.call(client); }, testing::ThrowsMessage<Exception>(
                                                std::string(each.name) + " lost connection to tavix-settings-server"));
    EXPECT_TRUE(connection->replies.IsClosed()) << each.name;
  }
}

TEST(TavixSettingsClientImplMultiThreaded, DeletesItsConnection) {
  struct Counted : FakeConnection {
    explicit Counted(int& count) : _count(count) { ++_count; }
    ~Counted() override { --_count; }
    int& _count;
  };
  int count = 0;
  { const TavixSettingsClientImplMultiThreaded client(new Counted(count)); }
  EXPECT_EQ(count, 0);
}

TEST(TavixSettingsClientImplMultiThreaded, NamesThatCannotStandOnALineAreRefusedBeforeAByteIsSent) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  const IniFile good;
  for (const std::string name : {".", "a\nb", "\n", "A\n.\nquit\n"}) {
    IniFile bad, out;
    bad[name];
    EXPECT_THROW(client.GetSettings(Groups{"A", name}, out), Exception) << name;
    EXPECT_THROW(client.MergeSettings(bad), Exception) << name;
    EXPECT_THROW(client.TestAndMerge(bad, good), Exception) << name;
    EXPECT_THROW(client.TestAndMerge(good, bad), Exception) << name;
    EXPECT_THROW(client.Subscribe(&callback, name), Exception) << name;
    EXPECT_THROW(client.OverwriteSettings(name, good), Exception) << name;
    EXPECT_THROW(client.OverwriteSettings("A", bad), Exception) << name;
    EXPECT_THROW(client.RestoreToDefaults(name), Exception) << name;
  }
  client.SetValue("[A]x", "1");
  EXPECT_EQ(peer.ReadThrough(), "merge\n[A]\nx=1\n.\n");
  peer.Close();
  ServerEnd after = server.Accept();  // and nothing was registered
  client.SetValue("[A]x", "2");
  EXPECT_EQ(after.ReadThrough(), "merge\n[A]\nx=2\n.\n");
}

}  // namespace
