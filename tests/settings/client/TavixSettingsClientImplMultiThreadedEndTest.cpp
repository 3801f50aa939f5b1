// The multi-threaded client's destructor returns within three seconds whatever its worker and its peer are doing, and
// leaves no thread behind.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/LogOf.h"
#include "tests/support/OwnSockets.h"
#include "tests/support/OwnThreads.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::test::AwaitAsleep;
using tavix::test::BackgroundCall;
using tavix::test::DaemonProcess;
using tavix::test::Eventually;
using tavix::test::FillOutput;
using tavix::test::FindConnectionsTo;
using tavix::test::FindThreads;
using tavix::test::ListeningSocket;
using tavix::test::LogOf;
using tavix::test::MillisecondsOf;
using tavix::test::RecordingCallback;
using tavix::test::ScopedEnvironment;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TemporaryDirectory;
using Client = std::unique_ptr<TavixSettingsClient>;

constexpr long kLongestEnd = 3000;  // milliseconds
constexpr char kNoticeA[] = "async change\nA\n.\n[A]\nx=1\n.\n";

Client MakeClient(TavixSettingsClient::OperationMode mode = TavixSettingsClient::MultiThreaded) {
  return std::make_unique<TavixSettingsClient>(mode);
}

// A thread has its name a moment after it was started.
void AwaitAsleepWorkers(size_t count = 1) {
  EXPECT_TRUE(Eventually([&] { return FindThreads("TavixSettings").size() == count; }));
  for (const pid_t worker : FindThreads("TavixSettings")) AwaitAsleep(worker);
}

void ExpectQuickEnd(Client& client) {
  EXPECT_LT(MillisecondsOf([&] { client.reset(); }), kLongestEnd);
  EXPECT_TRUE(FindThreads("TavixSettings").empty());
}

TEST(TavixSettingsClientImplMultiThreaded, EndsRightAfterItBegan) {
  ScriptedServer server;
  for (int i = 0; i < 5; ++i) {
    Client client = MakeClient();
    ExpectQuickEnd(client);
  }
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhenNobodyListens) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  Client client = MakeClient();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhileItPausesBetweenTwoAttempts) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  Client client = MakeClient();
  AwaitAsleepWorkers();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhileItPausesAfterFailedAttempts) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  Client client;
  const auto messages = LogOf([&] { client = MakeClient(); }, 13);
  EXPECT_THAT(messages, testing::Contains("WARNING TavixSettings: Attempting to reconnect in 1 second"));
  ExpectQuickEnd(client);
}

// Connections that a listener has no room for are neither made nor refused.
TEST(TavixSettingsClientImplMultiThreaded, EndsWhileAConnectIsUnderWay) {
  const ScriptedServer server(0);
  Client first = MakeClient();
  first->MergeSettings(IniFile());  // connected: there is room for one
  Client client = MakeClient();
  AwaitAsleepWorkers(2);
  EXPECT_LT(MillisecondsOf([&] { client.reset(); }), kLongestEnd);
  ExpectQuickEnd(first);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsAtOnceWhenTheServerEndsTheConnectionOnQuit) {
  ScriptedServer server;
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  client->MergeSettings(IniFile());
  BackgroundCall serve([&] {
    peer.ReadThrough("quit");
    peer.Close();
  });
  EXPECT_LT(MillisecondsOf([&] { client.reset(); }), 400);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhenTheServerIgnoresTheQuit) {
  ScriptedServer server;
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  client->MergeSettings(IniFile());
  ExpectQuickEnd(client);
  EXPECT_EQ(peer.ReadToEnd(), "merge\n.\nquit\n");
}

TEST(TavixSettingsClientImplMultiThreaded, EndsInTheMiddleOfANotice) {
  ScriptedServer server;
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  peer.Send("async change\nA\n.\n[A]\nx=");
  client->MergeSettings(IniFile());
  AwaitAsleepWorkers();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsInTheMiddleOfAReplyToACallThatWasFailed) {
  ScriptedServer server;
  Client client = MakeClient();
  server.Accept().Close();
  ServerEnd peer = server.Accept();
  EXPECT_THROW(client->GetValue("[A]x"), Exception);
  peer.ReadThrough();
  peer.Send("data\n[A]\nx=");
  AwaitAsleepWorkers();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsBetweenTwoConnections) {
  ScriptedServer server;
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  client->MergeSettings(IniFile());
  peer.Close();
  AwaitAsleepWorkers();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsOnceACallbackThatIsUnderWayHasReturned) {
  ScriptedServer server;
  std::promise<void> called, mayReturn;
  RecordingCallback callback([&] {
    called.set_value();
    mayReturn.get_future().wait();
  });
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  client->Subscribe(&callback, "A");
  peer.Send(kNoticeA);
  called.get_future().wait();
  BackgroundCall end([&] { client.reset(); });
  peer.ReadThrough("quit");
  EXPECT_EQ(peer.ReadToEnd(), "");  // it has given up on the peer, and waits for the callback alone
  EXPECT_FALSE(end.HasEnded());
  mayReturn.set_value();
  EXPECT_LT(MillisecondsOf([&] { end.Join(); }), 1000);
  EXPECT_TRUE(FindThreads("TavixSettings").empty());
}

TEST(TavixSettingsClientImplMultiThreaded, EndsAfterItsWorkerHasEnded) {
  ScriptedServer server;
  RecordingCallback callback([] { throw 42; });
  Client client = MakeClient();
  ServerEnd peer = server.Accept();
  client->Subscribe(&callback, "A");
  peer.Send(kNoticeA);
  EXPECT_EQ(peer.ReadToEnd(), "subscribe\nA\n.\n");
  ExpectQuickEnd(client);
}

// The worker itself is blocked in a write, and has the right to write.
TEST(TavixSettingsClientImplMultiThreaded, EndsWhileItSubscribesAgainAtAPeerThatDoesNotRead) {
  std::set<std::string> groups;
  for (char c = 'a'; c <= 'p'; ++c) groups.insert(std::string(1 << 20, c));
  ScriptedServer server;
  RecordingCallback callback;
  Client client = MakeClient();
  ServerEnd before = server.Accept();
  BackgroundCall subscribe([&] { client->Subscribe(&callback, groups); });
  before.ReadThrough();
  subscribe.Join();
  before.Close();
  ServerEnd after = server.Accept();
  after.AwaitBytes();
  AwaitAsleepWorkers();
  ExpectQuickEnd(client);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhenTheServerIsStoppedAndItsBuffersAreFull) {
  const TemporaryDirectory directory;
  const DaemonProcess daemon(TAVIX_SERVER_PROGRAM, directory.GetPath(), {"--listen", "127.0.0.1:0"});
  const ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER", daemon.AwaitAddresses().front().c_str());
  Client client = MakeClient();
  EXPECT_EQ(client->GetValue("[A]x"), "");
  daemon.Signal(SIGSTOP);
  FillOutput(FindConnectionsTo(daemon.GetPort()).at(0));
  ExpectQuickEnd(client);
  daemon.Signal(SIGCONT);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsOverALocalConnection) {
  for (int i = 0; i < 50; ++i) {
    Client client = MakeClient(TavixSettingsClient::MultiThreadedLocalConnection);
    ExpectQuickEnd(client);
    EXPECT_TRUE(FindThreads("LocalConnection").empty());
  }
}

TEST(TavixSettingsClientImplMultiThreaded, EndsOverALocalConnectionWhoseCallbackHasThrown) {
  std::promise<void> called;
  RecordingCallback callback([&] {
    called.set_value();
    throw std::runtime_error("of the callback");
  });
  Client client = MakeClient(TavixSettingsClient::MultiThreadedLocalConnection);
  client->Subscribe(&callback, "A");
  client->SetValue("[A]x", "1");
  called.get_future().wait();
  ExpectQuickEnd(client);
  EXPECT_TRUE(FindThreads("LocalConnection").empty());
}

}  // namespace
