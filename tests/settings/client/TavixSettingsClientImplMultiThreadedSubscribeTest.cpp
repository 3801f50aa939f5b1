// A subscription must survive a connection that is lost at whatever moment.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <deque>
#include <future>
#include <memory>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Patience.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/Threads.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::BackgroundCall;
using tavix::test::Eventually;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::ServerThreads;

class Client {
 public:
  void Subscribe(RecordingCallback* callback, const std::set<std::string>& groups) {
    _client.Subscribe(callback, groups);
  }
  auto& GetDispatcher() { return _client.GetDispatcher(); }

 private:
  TavixSettingsClientImplMultiThreaded _client{std::make_unique<TavixSettingsTcpConnection>().release()};
};

TEST(TavixSettingsClientImplMultiThreaded, AConnectionThatEndsRightAfterASubscribeIsFollowedByOneThatHasIt) {
  constexpr size_t kClients = 24;
  ScriptedServer server;
  std::promise<void> subscribed;  // a change before a callback is registered is none of its changes
  const std::shared_future<void> allSubscribed = subscribed.get_future().share();
  const ServerThreads threads(server, [=](ServerEnd& peer, size_t number) {
    EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
    if (number < 2 * kClients) return;
    allSubscribed.wait_for(tavix::test::kPatience);
    peer.Send("async change\nA\n.\n.\n");
    peer.ReadThrough("quit");
  });
  std::deque<RecordingCallback> callbacks(kClients);
  std::deque<Client> clients(kClients);
  for (size_t i = 0; i < kClients; ++i) clients[i].Subscribe(&callbacks[i], {"A"});
  subscribed.set_value();
  for (const RecordingCallback& callback : callbacks)
    EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; }));
}

// ThreadSanitizer keeps signals back from a thread that waits for a mutex, so there the order can't be brought about.
#if !defined(__SANITIZE_THREAD__)

std::atomic<bool> g_interrupted{false};

// A connection is made between the write of a subscription and its registration: it knows nothing of it, and the
// subscription must be written again. The threads are brought into that order by the dispatcher's mutex, which this
// test holds: a thread whose wait is interrupted goes to the end of the queue, so the subscriber comes last. Should the
// kernel wake it first, the connection knows of it, and what is written again is once too much.
TEST(TavixSettingsClientImplMultiThreaded, ASubscriptionThatAReconnectOvertookIsWrittenAgain) {
  ScriptedServer server;
  std::promise<void> held, release;
  RecordingCallback holder([&] {
    held.set_value();
    release.get_future().wait();
  });
  RecordingCallback late;
  Client client;
  ServerEnd before = server.Accept();
  client.Subscribe(&holder, {"Held"});
  before.ReadThrough();
  BackgroundCall holding([&] { client.GetDispatcher().OnChange({"Held"}, IniFile()); });
  held.get_future().wait();

  BackgroundCall subscribe([&] { client.Subscribe(&late, {"Late"}); });
  EXPECT_EQ(before.ReadThrough(), "subscribe\nLate\n.\n");
  subscribe.AwaitBlocked();
  before.Close();
  ServerEnd after = server.Accept();
  tavix::test::AwaitAsleep(tavix::test::FindThreads("TavixSettings").at(0));
  struct sigaction interrupt {};
  interrupt.sa_handler = [](int) { g_interrupted = true; };
  sigaction(SIGUSR1, &interrupt, nullptr);
  pthread_kill(subscribe.GetHandle(), SIGUSR1);
  EXPECT_TRUE(Eventually([] { return g_interrupted.load(); }));
  subscribe.AwaitBlocked();
  release.set_value();

  EXPECT_THAT(after.ReadThrough(), testing::AnyOf("subscribe\nHeld\n.\n", "subscribe\nHeld\nLate\n.\n"));
  EXPECT_EQ(after.ReadThrough(), "subscribe\nLate\n.\n");
  holding.Join();
  subscribe.Join();
  after.Send("async change\nLate\n.\n.\n");
  EXPECT_TRUE(Eventually([&] { return late.GetChanges().size() == 1; }));
}

#endif

}  // namespace
