// The multi-threaded client's destructor returns within three seconds whatever its worker and its peer are doing, and
// leaves no thread behind.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/LogOf.h"
#include "tests/support/OwnSockets.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/StoppedProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Threads.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::AwaitAsleep;
using tavix::test::BackgroundCall;
using tavix::test::DaemonProcess;
using tavix::test::ElapsedTime;
using tavix::test::Eventually;
using tavix::test::FillOutput;
using tavix::test::FindConnectionsTo;
using tavix::test::FindThreads;
using tavix::test::IsLongRun;
using tavix::test::ListeningSocket;
using tavix::test::LogOf;
using tavix::test::RecordingCallback;
using tavix::test::ScopedEnvironment;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::StopProcess;
using tavix::test::TemporaryDirectory;
using Client = std::unique_ptr<TavixSettingsClient>;

constexpr char kNoticeA[] = "async change\nA\n.\n[A]\nx=1\n.\n";

Client MakeClient(TavixSettingsClient::OperationMode mode = TavixSettingsClient::MultiThreaded) {
  return std::make_unique<TavixSettingsClient>(mode);
}

// A thread has its name a moment after it was started.
void AwaitAsleepWorkers(size_t count = 1) {
  EXPECT_TRUE(Eventually([&] { return FindThreads("TavixSettings").size() == count; }));
  for (const pid_t worker : FindThreads("TavixSettings")) AwaitAsleep(worker);
}

// The kernel lists a thread for a moment after its end was awaited.
void ExpectNoThreads(const std::string& name) {
  EXPECT_TRUE(Eventually([&] { return FindThreads(name).empty(); })) << name;
}

// What ends for another reason than the destructor's own takes ten seconds, the limit of a write, or for ever.
void ExpectEndInTime(Client& client) {
  EXPECT_LT(ElapsedTime([&] { client.reset(); }).undisturbed, IsLongRun() ? 3000 : 9000);
}

void ExpectQuickEnd(Client& client) {
  ExpectEndInTime(client);
  ExpectNoThreads("TavixSettings");
}

// Counts how often its owner has lost patience with it.
class CountingConnection : public TavixSettingsTcpConnection {
 public:
  // aborts: outlives this.
  explicit CountingConnection(std::atomic<int>& aborts) : _aborts(aborts) {}

  void AbortConnection() noexcept override {
    ++_aborts;
    TavixSettingsTcpConnection::AbortConnection();
  }

 private:
  std::atomic<int>& _aborts;
};

// Whether a client whose server ends the connection on its "quit" ends without breaking it after its second of grace.
bool EndsWithoutItsGrace(const ScriptedServer& server) {
  std::atomic<int> aborts{0};
  auto client =
      std::make_unique<TavixSettingsClientImplMultiThreaded>(std::make_unique<CountingConnection>(aborts).release());
  ServerEnd peer = server.Accept();
  client->MergeSettings(IniFile(), 0);
  BackgroundCall serve([&] {
    peer.ReadThrough("quit");
    peer.Close();
  });
  client.reset();
  return aborts == 0;
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
  const auto messages = LogOf([&] { client = MakeClient(); }, 14);
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
  ExpectEndInTime(client);
  ExpectQuickEnd(first);
}

// On a machine that stalls for the length of the grace the server answers too late: once in time shows it.
TEST(TavixSettingsClientImplMultiThreaded, EndsAtOnceWhenTheServerEndsTheConnectionOnQuit) {
  const ScriptedServer server;
  EXPECT_TRUE(Eventually([&] { return EndsWithoutItsGrace(server); }));
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
  end.Join();
  ExpectNoThreads("TavixSettings");
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
  StopProcess(daemon.GetId());
  FillOutput(FindConnectionsTo(daemon.GetPort()).at(0));
  ExpectQuickEnd(client);
  daemon.Signal(SIGCONT);
}

TEST(TavixSettingsClientImplMultiThreaded, EndsOverALocalConnection) {
  for (int i = 0; i < 20; ++i) {
    Client client = MakeClient(TavixSettingsClient::MultiThreadedLocalConnection);
    ExpectQuickEnd(client);
    ExpectNoThreads("LocalConnection");
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
  ExpectNoThreads("LocalConnection");
}

}  // namespace
