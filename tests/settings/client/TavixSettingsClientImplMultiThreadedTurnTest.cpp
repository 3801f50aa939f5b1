// Callers of the multi-threaded client that read their own replies, and what they leave to the worker. Each test begins
// when the worker sleeps and offers them the right to read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/settings/client/MultiThreadedExchange.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/Threads.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::AwaitAsleep;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::Eventually;
using tavix::test::ExpectGoodCall;
using tavix::test::FindThreads;
using tavix::test::kGetA;
using tavix::test::kGetFailed;
using tavix::test::kMode;
using tavix::test::kNoticeA;
using tavix::test::kReplyA;
using tavix::test::LogOf;
using tavix::test::LookAtThread;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TextOf;

std::string ReplyWith(const std::string& value) {
  return "data\n[A]\nx=" + value + "\n.\n";
}

std::string NoticeOf(int value) {
  return "async change\nA\n.\n[A]\nx=" + std::to_string(value) + "\n.\n";
}

std::string NameOfThread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

// A client that has subscribed, and whose worker sleeps and offers the right to read, because there was a call.
struct ClientAtRest {
  explicit ClientAtRest(std::function<void()> then = {}) : callback(std::move(then)) {
    client.Subscribe(&callback, "A");
    EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
    ExpectGoodCall(client, peer);
    Rest();
  }

  void Rest() const { AwaitAsleep(GetWorker()); }

  // The kernel lists a thread for a moment after its end was awaited.
  static pid_t GetWorker() {
    EXPECT_TRUE(Eventually([] { return FindThreads("TavixSettings").size() == 1; }));
    return FindThreads("TavixSettings").at(0);
  }

  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client{kMode};
  ServerEnd peer = server.Accept();
};

TEST(TavixSettingsClientImplMultiThreaded, AReplyWakesItsCallerAlone) {
  ClientAtRest with;
  const pid_t worker = ClientAtRest::GetWorker();
  EXPECT_TRUE(Eventually([&] {
    with.Rest();
    const std::string before = LookAtThread(worker);
    for (int i = 0; i < 10; ++i) ExpectGoodCall(with.client, with.peer);
    return LookAtThread(worker) == before;
  }));
}

TEST(TavixSettingsClientImplMultiThreaded, AReplyOverALocalConnectionWakesItsCallerAlone) {
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.SetValue("[A]x", "1");  // which waits until it is connected
  const pid_t worker = ClientAtRest::GetWorker();
  EXPECT_TRUE(Eventually([&] {
    AwaitAsleep(worker);
    const std::string before = LookAtThread(worker);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(client.GetValue("[A]x"), "1");
    return LookAtThread(worker) == before;
  }));
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeBeforeAReplyIsCalledOnTheWorkerBeforeItsCallerGoesOn) {
  std::string thread;
  ClientAtRest with([&] { thread = NameOfThread(); });
  for (int i = 0; i < 10; ++i) {
    PendingValue value(with.client);
    EXPECT_EQ(with.peer.ReadThrough(), kGetA);
    if (i % 2) value.AwaitBlocked();
    with.peer.Send(NoticeOf(i));
    if (i % 3) value.AwaitBlocked();
    with.peer.Send(kReplyA);
    EXPECT_EQ(value.Join(), "1");
    EXPECT_THAT(with.callback.TakeChanges(), testing::ElementsAre(Change{{"A"}, "[A]\nx=" + std::to_string(i) + "\n"}));
    EXPECT_EQ(thread, "TavixSettings");
    if (i > 4) with.Rest();
  }
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeThatBeginsWithABlankIsCalledOnTheWorkerToo) {
  std::string thread;
  ClientAtRest with([&] { thread = NameOfThread(); });
  PendingValue value(with.client);
  with.peer.ReadThrough();
  with.peer.Send(std::string(" ") + kNoticeA + kReplyA);
  EXPECT_EQ(value.Join(), "1");
  EXPECT_EQ(thread, "TavixSettings");
}

TEST(TavixSettingsClientImplMultiThreaded, ACallWaitsForTheCallbackOfANoticeBeforeItsReply) {
  std::promise<void> called, mayReturn;
  ClientAtRest with([&] {
    called.set_value();
    mayReturn.get_future().wait();
  });
  PendingValue value(with.client);
  with.peer.ReadThrough();
  with.peer.Send(std::string(kNoticeA) + kReplyA);
  called.get_future().wait();
  value.AwaitBlocked();
  EXPECT_FALSE(value.HasEnded());
  mayReturn.set_value();
  EXPECT_EQ(value.Join(), "1");
}

// It is read together with the reply, so that nothing more comes over the connection.
TEST(TavixSettingsClientImplMultiThreaded, ANoticeBehindAReplyIsCalledAtOnce) {
  ClientAtRest with;
  for (size_t read = 1; read < std::string(kNoticeA).size(); ++read) {
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send(kReplyA + std::string(kNoticeA).substr(0, read));
    EXPECT_EQ(value.Join(), "1");
    EXPECT_TRUE(with.callback.GetChanges().empty());
    with.peer.Send(std::string(kNoticeA).substr(read) + kNoticeA);
    EXPECT_TRUE(Eventually([&] { return with.callback.GetChanges().size() == 2; }));
    EXPECT_EQ(with.callback.TakeChanges().size(), 2u);
  }
  PendingValue value(with.client);
  with.peer.ReadThrough();
  with.peer.Send(std::string(kReplyA) + kNoticeA);
  EXPECT_EQ(value.Join(), "1");
  EXPECT_TRUE(Eventually([&] { return with.callback.GetChanges().size() == 1; }));
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeThatComesBetweenTwoCallsIsCalledOnce) {
  ClientAtRest with;
  for (int i = 1; i <= 100; ++i) {
    with.peer.Send(NoticeOf(i));
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send(ReplyWith(std::to_string(i)));
    EXPECT_EQ(value.Join(), std::to_string(i));
    EXPECT_THAT(with.callback.TakeChanges(), testing::ElementsAre(Change{{"A"}, "[A]\nx=" + std::to_string(i) + "\n"}));
  }
}

TEST(TavixSettingsClientImplMultiThreaded, ALossFailsACallerThatReadsItselfAndTheNextConnectionIsInOrder) {
  const std::string reply = kReplyA;
  for (const size_t sent : {size_t{0}, size_t{1}, reply.size() - 1}) {
    ClientAtRest with;
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send(reply.substr(0, sent));
    value.AwaitBlocked();
    with.peer.Close();
    EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed)) << sent;
    with.peer = with.server.Accept();
    EXPECT_EQ(with.peer.ReadThrough(), "subscribe\nA\n.\n");
    ExpectGoodCall(with.client, with.peer);
    with.peer.Send(kNoticeA);
    EXPECT_TRUE(Eventually([&] { return with.callback.GetChanges().size() == 1; }));
  }
}

TEST(TavixSettingsClientImplMultiThreaded, ALossBehindAReplyStaysForTheNextCaller) {
  ClientAtRest with;
  PendingValue value(with.client);
  with.peer.ReadThrough();
  with.peer.Send(kReplyA);
  with.peer.Close();
  EXPECT_EQ(value.Join(), "1");
  with.peer = with.server.Accept();
  EXPECT_EQ(with.peer.ReadThrough(), "subscribe\nA\n.\n");
  EXPECT_THAT([&] { with.client.GetValue("[A]x"); }, testing::ThrowsMessage<Exception>(kGetFailed));
  with.peer.ReadThrough();
  with.peer.Send(ReplyWith("late"));
  ExpectGoodCall(with.client, with.peer);
}

TEST(TavixSettingsClientImplMultiThreaded, AnEmptyLineThatACallerReadsEndsTheConnectionOnTheWorker) {
  ClientAtRest with;
  const auto messages = LogOf([&] {
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send("\n");
    EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
    EXPECT_EQ(with.peer.ReadToEnd(), "");
  });
  EXPECT_THAT(messages, testing::Contains("ERROR TavixSettings: Caught Unexpected empty line returned from tcp "
                                          "connection with tavix-settings-server"));
  with.peer = with.server.Accept();
  with.peer.ReadThrough();
  ExpectGoodCall(with.client, with.peer);
}

TEST(TavixSettingsClientImplMultiThreaded, TheRestOfAWrongReplyThatACallerReadIsNobodys) {
  for (const std::string rest : {"ok\n", ""}) {
    ClientAtRest with;
    PendingValue wrong(with.client);
    with.peer.ReadThrough();
    with.peer.Send("result\n" + rest);
    EXPECT_THAT([&] { wrong.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send((rest.empty() ? "async change\n" : "") + std::string(kReplyA) + kNoticeA);
    EXPECT_EQ(value.Join(), "1");
    EXPECT_TRUE(Eventually([&] { return with.callback.GetChanges().size() == 1; }));
  }
}

TEST(TavixSettingsClientImplMultiThreaded, ManyCallersGetTheirOwnRepliesAndEachNoticeInOrder) {
  constexpr int kCallers = 8, kCalls = 50;
  ClientAtRest with;
  BackgroundCall serve([&] {
    for (int i = 0; i < kCallers * kCalls; ++i) {
      const std::string request = with.peer.ReadThrough();
      const std::string group = request.substr(14, request.size() - 17);
      with.peer.Send(NoticeOf(i) + "data\n[" + group + "]\nx=" + group + "\n.\n");
    }
  });
  std::deque<BackgroundCall> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, group = "G" + std::to_string(caller)] {
      for (int i = 0; i < kCalls; ++i) EXPECT_EQ(with.client.GetValue("[" + group + "]x"), group);
    });
  }
  for (BackgroundCall& caller : callers) caller.Join();
  serve.Join();
  std::vector<Change> expected;
  for (int i = 0; i < kCallers * kCalls; ++i) expected.push_back({{"A"}, "[A]\nx=" + std::to_string(i) + "\n"});
  EXPECT_EQ(with.callback.GetChanges(), expected);
}

// No limit ends a write: the test hangs when nobody reads what the server has to get rid of first.
class PatientConnection : public TavixSettingsTcpConnection {
 public:
  void EnsureConnection(int attempts) override {
    TavixSettingsTcpConnection::EnsureConnection(attempts);
    LimitWrites(tavix::osa::kWaitForever);
  }
};

TEST(TavixSettingsClientImplMultiThreaded, ALargeNoticeIsReadWhileARequestWithAReplyIsWritten) {
  IniFile large;
  for (int i = 0; i < 16; ++i) large["Large"][std::to_string(i)] = std::string(1 << 20, 'x');
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClientImplMultiThreaded client(std::make_unique<PatientConnection>().release());
  client.Subscribe(&callback, {"Large"});
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  BackgroundCall before([&] { EXPECT_FALSE(client.TestAndMerge(IniFile(), IniFile())); });
  peer.ReadThrough(), peer.ReadThrough();
  peer.Send("result\nfailure\n");
  before.Join();
  AwaitAsleep(ClientAtRest::GetWorker());
  BackgroundCall test([&] { EXPECT_TRUE(client.TestAndMerge(IniFile(), large)); });
  peer.AwaitBytes();
  test.AwaitBlocked();
  peer.Send("async change\nLarge\n.\n" + TextOf(large) + ".\n");
  EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; }));
  EXPECT_FALSE(test.HasEnded());
  peer.ReadThrough();
  EXPECT_TRUE(peer.ReadThrough() == TextOf(large) + ".\n");
  peer.Send("result\nok\n");
  test.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, EndsWhileItsWorkerSleepsBehindTheTurnOfACaller) {
  ScriptedServer server;
  std::optional<TavixSettingsClient> client(std::in_place, kMode);
  ServerEnd peer = server.Accept();
  for (int i = 0; i < 2; ++i) {
    AwaitAsleep(FindThreads("TavixSettings").at(0));
    ExpectGoodCall(*client, peer);
  }
  BackgroundCall serve([&] {
    EXPECT_EQ(peer.ReadThrough("quit"), "quit\n");
    peer.Close();
  });
  client.reset();
  serve.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, OverALocalConnectionAChangesNoticeComesBeforeTheNextReply) {
  RecordingCallback callback;
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.Subscribe(&callback, "A");
  for (int i = 0; i < 300; ++i) {
    const std::string value = std::to_string(i);
    client.SetValue("[A]x", value);
    EXPECT_EQ(client.GetValue("[A]x"), value);
    EXPECT_THAT(callback.TakeChanges(), testing::ElementsAre(Change{{"A"}, "[A]\nx=" + value + "\n"}));
    EXPECT_EQ(client.GetValue("[A]x"), value);
  }
}

}  // namespace
