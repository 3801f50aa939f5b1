// What the multi-threaded client makes of connections that are lost and of replies that are no replies.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/settings/client/MultiThreadedExchange.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::ErrorsIn;
using tavix::test::Eventually;
using tavix::test::ExpectGoodCall;
using tavix::test::kGetA;
using tavix::test::kGetFailed;
using tavix::test::kMode;
using tavix::test::kNoticeA;
using tavix::test::kReplyA;
using tavix::test::LogOf;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::ServerThreads;
using tavix::test::TextOf;

constexpr char kTestFailed[] = "TestAndMerge failed to communicate with tavix-settings-server";
constexpr char kStray[] = "ERROR TavixSettings: Message received without corresponding request";

// A client that has lost so many connections while nobody waited, and the server's end of the one that it has now.
struct ClientAfterLosses {
  explicit ClientAfterLosses(int losses) : client(kMode), peer(server.Accept()) {
    for (; losses > 0; --losses) {
      peer.Close();
      peer = server.Accept();
    }
    client.MergeSettings(IniFile());  // which waits until it is connected
    peer.ReadThrough();
  }

  ScriptedServer server;
  TavixSettingsClient client;
  ServerEnd peer;
};

// Replies to many clients, each of which asks something of its own. Connections come in any order: a client's second
// one may overtake another's first.
class RepliesCutOffOnce {
 public:
  explicit RepliesCutOffOnce(std::string reply) : _reply(std::move(reply)) {}

  // Whether the reply was sent whole. The first reply to each client is not: none of its bytes to the first client, one
  // to the second, and so on.
  bool Answer(ServerEnd& peer, const std::string& request) {
    const std::string part = PartFor(request);
    peer.Send(part);
    return part.size() == _reply.size();
  }

 private:
  std::string PartFor(const std::string& request) {
    std::lock_guard<std::mutex> lock(_mutex);
    const size_t before = _requests.size();
    return _requests.insert(request).second ? _reply.substr(0, before) : _reply;
  }

  const std::string _reply;
  std::mutex _mutex;  // guards what follows
  std::set<std::string> _requests;
};

// Deliberate: whoever asks first after a lost connection is told of it, though its own request is in order.
TEST(TavixSettingsClientImplMultiThreaded, AfterAnyNumberOfLossesExactlyOneCallFails) {
  for (const int losses : {1, 2}) {
    ClientAfterLosses after(losses);
    EXPECT_THAT([&] { after.client.GetValue("[A]x"); }, testing::ThrowsMessage<Exception>(kGetFailed)) << losses;
    EXPECT_EQ(after.peer.ReadThrough(), kGetA);
    after.peer.Send("data\n[A]\nx=late\n.\n");
    ExpectGoodCall(after.client, after.peer);
    ExpectGoodCall(after.client, after.peer);
  }
}

TEST(TavixSettingsClientImplMultiThreaded, AnEarlierLossFailsTestAndMergeWhichTheServerMayHaveDone) {
  ClientAfterLosses after(1);
  const auto test = [&] { return after.client.TestAndMerge(IniFile(), IniFile()); };
  EXPECT_THAT(test, testing::ThrowsMessage<Exception>(kTestFailed));
  EXPECT_EQ(after.peer.ReadThrough("test-and-merge"), "test-and-merge\n");
  after.peer.ReadThrough(), after.peer.ReadThrough();
  BackgroundCall next([&] { EXPECT_FALSE(test()); });
  after.peer.ReadThrough("test-and-merge");
  after.peer.Send("result\nok\nresult\nfailure\n");
  next.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, AnEarlierLossDoesNotFailAChange) {
  ClientAfterLosses after(1);
  after.client.SetValue("[A]x", "1");
  EXPECT_EQ(after.peer.ReadThrough(), "merge\n[A]\nx=1\n.\n");
}

TEST(TavixSettingsClientImplMultiThreaded, NothingIsWrittenIntoTheDocumentOfACallThatWasFailed) {
  ClientAfterLosses after(1);
  auto out = std::make_unique<IniFile>(DocumentOf("[A]\nx=0\n"));
  EXPECT_THROW(after.client.GetSettings("A", *out), Exception);
  EXPECT_EQ(TextOf(*out), "[A]\nx=0\n");
  out.reset();
  std::string late = "data\n";
  for (int i = 0; i < 1000; ++i) late += "[A" + std::to_string(i) + "]\nx=late\n";
  after.peer.ReadThrough();
  after.peer.Send(late + ".\n");
  ExpectGoodCall(after.client, after.peer);
}

TEST(TavixSettingsClientImplMultiThreaded, TheNextCallGetsItsOwnReplyAndNotTheLateOneOfAFailedCall) {
  ClientAfterLosses after(1);
  EXPECT_THROW(after.client.GetValue("[A]x"), Exception);
  PendingValue value(after.client);
  EXPECT_EQ(after.peer.ReadThrough(), kGetA);
  EXPECT_EQ(after.peer.ReadThrough(), kGetA);
  after.peer.Send("data\n[A]\nx=late\n.\n");
  after.peer.Send(kReplyA);
  EXPECT_EQ(value.Join(), "1");
}

TEST(TavixSettingsClientImplMultiThreaded, LateRepliesOfDifferentKindsMeetTheirOwnRequests) {
  ClientAfterLosses after(1);
  EXPECT_THROW(after.client.TestAndMerge(IniFile(), IniFile()), Exception);
  PendingValue value(after.client);
  after.peer.ReadThrough(), after.peer.ReadThrough(), after.peer.ReadThrough();
  after.peer.Send(std::string("result\nok\n") + kReplyA);
  EXPECT_EQ(value.Join(), "1");
}

// The reply came at once, before its caller saw the earlier loss: it must not stay for the next one.
TEST(TavixSettingsClientImplMultiThreaded, AReplyThatOvertakesAnEarlierFailureIsNobodyElses) {
  ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    if (number == 0) return;
    for (int i = 0;; ++i) {
      peer.ReadThrough();
      peer.Send("data\n[A]\nx=" + std::to_string(i) + "\n.\n");
    }
  });
  const TavixSettingsClient client(kMode);
  int next = 0;
  while (next == 0) {
    try {
      const std::string value = client.GetValue("[A]x");
      next = std::stoi(value) + 1;
    } catch (const Exception&) {
    }
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(client.GetValue("[A]x"), std::to_string(next++));
}

TEST(TavixSettingsClientImplMultiThreaded, ALossFailsTheCallerThatWaitsAndNobodyElse) {
  ScriptedServer server;
  const TavixSettingsClient client(kMode);
  PendingValue value(client);
  ServerEnd before = server.Accept();
  before.ReadThrough();
  before.Reset();
  EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
  ServerEnd after = server.Accept();
  ExpectGoodCall(client, after);
}

// Each byte with a client of its own, all at once: every loss takes a second.
TEST(TavixSettingsClientImplMultiThreaded, AReplyThatIsCutOffAnywhereFailsItsCallerAndLeavesTheDocument) {
  RepliesCutOffOnce replies(kReplyA);
  ScriptedServer server;
  const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
    if (replies.Answer(peer, peer.ReadThrough())) peer.ReadThrough("quit");
  });
  std::deque<TavixSettingsClient> clients;
  std::deque<BackgroundCall> calls;
  for (size_t cuts = std::string(kReplyA).size(); cuts > 0; --cuts) {
    const TavixSettingsClient& client = clients.emplace_back(kMode);
    calls.emplace_back([&client, group = std::to_string(cuts)] {
      IniFile out = DocumentOf("[A]\nx=0\n");
      EXPECT_THAT([&] { client.GetSettings(group, out); }, testing::ThrowsMessage<Exception>(kGetFailed));
      EXPECT_EQ(TextOf(out), "[A]\nx=0\n");
      IniFile next;
      EXPECT_TRUE(client.GetSettings(group, next));
      EXPECT_EQ(TextOf(next), "[A]\nx=1\n");
    });
  }
  for (BackgroundCall& call : calls) call.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, AnOutcomeThatIsCutOffAnywhereFailsItsCaller) {
  const std::string reply = "result\nok\n";
  RepliesCutOffOnce replies(reply);
  ScriptedServer server;
  const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
    const std::string test = peer.ReadThrough();
    peer.ReadThrough();
    if (replies.Answer(peer, test)) peer.ReadThrough("quit");
  });
  std::deque<TavixSettingsClient> clients;
  std::deque<BackgroundCall> calls;
  for (size_t cuts = reply.size(); cuts > 0; --cuts) {
    TavixSettingsClient& client = clients.emplace_back(kMode);
    calls.emplace_back([&client, cuts] {
      IniFile own;
      own[std::to_string(cuts)];
      const auto test = [&] { return client.TestAndMerge(own, IniFile()); };
      EXPECT_THAT(test, testing::ThrowsMessage<Exception>(kTestFailed));
      EXPECT_TRUE(test());
    });
  }
  for (BackgroundCall& call : calls) call.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeThatIsCutOffAnywhereCallsNobodyAndTheNextConnectionDoes) {
  const std::string notice = kNoticeA;
  ScriptedServer server;
  const ServerThreads threads(server, [&](ServerEnd& peer, size_t number) {
    EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
    if (number < notice.size()) return peer.Send(notice.substr(0, number));
    peer.Send("async change\nA\n.\n[A]\nx=2\n.\n");
    peer.ReadThrough("quit");
  });
  std::deque<RecordingCallback> callbacks(notice.size());
  std::deque<TavixSettingsClient> clients;
  for (RecordingCallback& callback : callbacks) clients.emplace_back(kMode).Subscribe(&callback, "A");
  for (RecordingCallback& callback : callbacks) {
    EXPECT_TRUE(Eventually([&] { return !callback.GetChanges().empty(); }));
    EXPECT_THAT(callback.GetChanges(), testing::ElementsAre(Change{{"A"}, "[A]\nx=2\n"}));
  }
}

TEST(TavixSettingsClientImplMultiThreaded, AReplyThatCannotBeParsedIsFalseAndItsRestIsNoMessage) {
  ClientAfterLosses with(0);
  IniFile out = DocumentOf("[A]\nx=0\n");
  bool got = true;
  const auto messages = LogOf([&] {
    BackgroundCall get([&] { got = with.client.GetSettings("A", out); });
    with.peer.ReadThrough();
    with.peer.Send("data\n[A]\nx=1\nno setting\nasync change\n[B]\n\ny=2\n.\n");
    get.Join();
  });
  EXPECT_FALSE(got);
  EXPECT_EQ(TextOf(out), "[A]\nx=0\n");
  EXPECT_THAT(messages,
              testing::ElementsAre("TRACE TavixSettings: GetSettings",
                                   testing::StartsWith("ERROR TavixSettings: Exception handling response from "
                                                       "server: reply:3: ")));
  ExpectGoodCall(with.client, with.peer);  // on the same connection
}

TEST(TavixSettingsClientImplMultiThreaded, AReplyOfTheWrongKindFailsItsCallerAndItsRestIsReadAsFurtherLines) {
  ClientAfterLosses with(0);
  const auto messages = LogOf([&] {
    BackgroundCall test([&] { with.client.TestAndMerge(IniFile(), IniFile()); });
    with.peer.ReadThrough(), with.peer.ReadThrough();
    with.peer.Send(kReplyA);
    EXPECT_THAT([&] { test.Join(); }, testing::ThrowsMessage<Exception>(kTestFailed));
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send("result\nok\n");
    EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
    ExpectGoodCall(with.client, with.peer);  // on the same connection
  });
  EXPECT_THAT(messages, testing::IsSupersetOf({"ERROR TavixSettings: TestAndMerge failed",
                                               "ERROR TavixSettings: GetSettings failed", kStray}));
}

// The rest of a wrong reply is never taken for the next caller's, however early that one asks.
TEST(TavixSettingsClientImplMultiThreaded, TheRestOfAReplyOfTheWrongKindIsNobodysReply) {
  ClientAfterLosses with(0);
  BackgroundCall test([&] { with.client.TestAndMerge(IniFile(), IniFile()); });
  with.peer.ReadThrough(), with.peer.ReadThrough();
  with.peer.Send("data\n");
  EXPECT_THROW(test.Join(), Exception);
  PendingValue value(with.client);
  EXPECT_EQ(with.peer.ReadThrough(), kGetA);
  with.peer.Send("[A]\nx=wrong\n\n.\n");
  with.peer.Send(kReplyA);
  EXPECT_EQ(value.Join(), "1");
}

TEST(TavixSettingsClientImplMultiThreaded, ALineThatIsNoReplyFailsTheCallerAtOnceAndTheConnectionStays) {
  ClientAfterLosses with(0);
  for (const std::string line : {"bogus line", ".", "DATA", " "}) {
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send(line + "\n");
    EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed)) << line;
    ExpectGoodCall(with.client, with.peer);
  }
}

TEST(TavixSettingsClientImplMultiThreaded, LinesThatNobodyWaitsForAreLoggedAndDropped) {
  ClientAfterLosses with(0);
  RecordingCallback callback;
  with.client.Subscribe(&callback, "A");
  with.peer.ReadThrough();
  const auto messages = LogOf([&] {
    with.peer.Send("bogus\nresult\nok\n. \n");
    with.peer.Send(kNoticeA);
    Eventually([&] { return !callback.GetChanges().empty(); });
  });
  // Four times the same; repeats are folded, but for those that came late.
  EXPECT_THAT(messages, testing::AllOf(testing::Not(testing::IsEmpty()), testing::Each(kStray)));
  ExpectGoodCall(with.client, with.peer);
}

TEST(TavixSettingsClientImplMultiThreaded, AnEmptyLineEndsTheConnection) {
  ClientAfterLosses with(0);
  const auto messages = LogOf([&] {
    PendingValue value(with.client);
    with.peer.ReadThrough();
    with.peer.Send("\n");
    EXPECT_THAT([&] { value.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
    EXPECT_EQ(with.peer.ReadToEnd(), "");
    ServerEnd after = with.server.Accept();
    ExpectGoodCall(with.client, after);
  });
  EXPECT_THAT(messages, testing::Contains("ERROR TavixSettings: Caught Unexpected empty line returned from tcp "
                                          "connection with tavix-settings-server"));
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeThatCannotBeParsedEndsTheConnection) {
  ClientAfterLosses with(0);
  const auto messages = LogOf([&] {
    with.peer.Send("async change\nA\n.\nno setting\n.\n");
    EXPECT_EQ(with.peer.ReadToEnd(), "");
  });
  EXPECT_THAT(ErrorsIn(messages),
              testing::ElementsAre(testing::StartsWith("ERROR TavixSettings: Caught change notice:1: ")));
  EXPECT_NO_THROW(with.server.Accept());
}

}  // namespace
