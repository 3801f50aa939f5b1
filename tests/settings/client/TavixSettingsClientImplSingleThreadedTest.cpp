#include "tavix/settings/client/TavixSettingsClientImplSingleThreaded.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/FakeConnection.h"
#include "tests/support/LogOf.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::client::TavixSettingsClientImplSingleThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::FakeConnection;
using tavix::test::ListeningSocket;
using tavix::test::LogOf;
using tavix::test::MillisecondsOf;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::ServerThreads;
using tavix::test::TextOf;
using Groups = std::set<std::string>;

constexpr char kFailed[] = "Failed to connect to tavix-settings-server";
constexpr char kGetA[] = "get delimited\nA\n.\n";

class Client : public TavixSettingsClientImplSingleThreaded {
 public:
  Client() : TavixSettingsClientImplSingleThreaded(std::make_unique<TavixSettingsTcpConnection>().release()) {}

  std::string Get(const Groups& groups = {"A"}) const {
    IniFile out;
    EXPECT_TRUE(GetSettings(groups, out));
    return TextOf(out);
  }
};

// A call of Get whose outcome is asked for once it is over.
struct PendingGet {
  explicit PendingGet(const Client& client) : call([this, &client] { text = client.Get(); }) {}

  std::string Join() {
    call.Join();
    return text;
  }

  std::string text;
  BackgroundCall call;
};

TEST(TavixSettingsClientImplSingleThreaded, ConnectsWithTheFirstOperationOnly) {
  ScriptedServer server;
  Client client;
  EXPECT_FALSE(server.HasWaitingConnection());
  client.MergeSettings(IniFile(), 0);
  EXPECT_EQ(server.Accept().ReadThrough(), "merge\n.\n");
}

TEST(TavixSettingsClientImplSingleThreaded, EndsWithoutAQuit) {
  ScriptedServer server;
  auto client = std::make_unique<Client>();
  client->MergeSettings(IniFile(), 0);
  ServerEnd peer = server.Accept();
  client.reset();
  EXPECT_EQ(peer.ReadToEnd(), "merge\n.\n");
}

TEST(TavixSettingsClientImplSingleThreaded, AllRequestsGoOverOneConnection) {
  ScriptedServer server;
  Client client;
  client.MergeSettings(IniFile(), 0);
  ServerEnd peer = server.Accept();
  client.OverwriteSettings({"A"}, IniFile());
  client.RestoreToDefaults({"A"});
  EXPECT_EQ(peer.ReadThrough("restore"), "merge\n.\noverwrite\nA\n.\n.\nrestore\n");
  EXPECT_FALSE(server.HasWaitingConnection());
}

// The server reads nothing and answers nothing.
TEST(TavixSettingsClientImplSingleThreaded, AWriteReturnsWithoutReadingAnything) {
  ScriptedServer server;
  Client client;
  client.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  client.OverwriteSettings({"A"}, IniFile());
  client.RestoreToDefaults({"A"});
  EXPECT_NO_THROW(server.Accept());
}

TEST(TavixSettingsClientImplSingleThreaded, UnrelatedLinesBeforeAReplyAreLost) {
  ScriptedServer server;
  Client client;
  client.MergeSettings(IniFile(), 0);
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  for (const std::string stray :
       {"async change\nA\n.\n[A]\nx=0\n.\n", "\n\n", "result\nok\n", "DATA\n", "database\n"}) {
    PendingGet get(client);
    EXPECT_EQ(peer.ReadThrough(), kGetA);
    peer.Send(stray + "data\n[A]\nx=1\n.\n");
    EXPECT_EQ(get.Join(), "[A]\nx=1\n") << stray;
  }
}

TEST(TavixSettingsClientImplSingleThreaded, UnrelatedLinesBeforeAResultAreLost) {
  ScriptedServer server;
  Client client;
  bool merged = false;
  BackgroundCall call([&] { merged = client.TestAndMerge(IniFile(), IniFile()); });
  server.Accept().Send("data\n[A]\nx=1\n.\nasync change\nA\n.\n.\nresult of nothing\nok\n");
  call.Join();
  EXPECT_TRUE(merged);
}

TEST(TavixSettingsClientImplSingleThreaded, TheReplysFirstWordCounts) {
  ScriptedServer server;
  const Client client;
  PendingGet get(client);
  server.Accept().Send(" data and more\r\n[A]\nx=1\n.\n");
  EXPECT_EQ(get.Join(), "[A]\nx=1\n");
}

// Deliberate: what was lost is made again, so a server may get a request twice.
TEST(TavixSettingsClientImplSingleThreaded, ARequestWhoseReplyIsLostIsSentAgain) {
  ScriptedServer server;
  Client client;
  bool merged = false;
  BackgroundCall call([&] { merged = client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n")); });
  for (int lost = 0; lost < 4; ++lost) {
    ServerEnd peer = server.Accept();
    EXPECT_EQ(peer.ReadThrough(), "test-and-merge\n[A]\nx=1\n.\n");
    EXPECT_EQ(peer.ReadThrough(), "[A]\nx=2\n.\n");
  }
  server.Accept().Send("result\nok\n");
  call.Join();
  EXPECT_TRUE(merged);
}

TEST(TavixSettingsClientImplSingleThreaded, FiveFailedExchangesEndACall) {
  ScriptedServer server;
  const Client client;
  const auto messages = LogOf([&] {
    PendingGet get(client);
    for (int tries = 0; tries < 5; ++tries) EXPECT_EQ(server.Accept().ReadThrough(), kGetA);
    EXPECT_THAT([&] { get.Join(); }, testing::ThrowsMessage<Exception>(kFailed));
  });
  EXPECT_FALSE(server.HasWaitingConnection());
  EXPECT_THAT(messages, testing::IsEmpty());  // only failures that were exceptions are logged
}

TEST(TavixSettingsClientImplSingleThreaded, ACallAfterAFailedOneConnectsAnew) {
  ScriptedServer server;
  const Client client;
  PendingGet fails(client);
  for (int tries = 0; tries < 5; ++tries) {
    ServerEnd peer = server.Accept();
    peer.ReadThrough();
    peer.Reset();
  }
  EXPECT_THROW(fails.Join(), Exception);
  PendingGet get(client);
  server.Accept().Send("data\n.\n");
  EXPECT_EQ(get.Join(), "");
}

TEST(TavixSettingsClientImplSingleThreaded, ALossBetweenTwoCallsIsNotNoticedByTheCaller) {
  ScriptedServer server;
  const Client client;
  for (const std::string value : {"1", "2", "3"}) {
    PendingGet get(client);
    ServerEnd peer = server.Accept();
    peer.ReadThrough();
    peer.Send("data\n[A]\nx=" + value + "\n.\n");
    EXPECT_EQ(get.Join(), "[A]\nx=" + value + "\n");
  }
}

TEST(TavixSettingsClientImplSingleThreaded, AReplyThatIsCutOffAnywhereIsAskedForAgain) {
  const std::string reply = "data\n[A]\nx=1\n[B]\ny=2\n.\n";
  ScriptedServer server;
  for (size_t cut = 0; cut < reply.size(); ++cut) {
    const Client client;
    PendingGet get(client);
    ServerEnd first = server.Accept();
    EXPECT_EQ(first.ReadThrough(), kGetA);
    first.Send(reply.substr(0, cut));
    first.Close();
    ServerEnd second = server.Accept();
    EXPECT_EQ(second.ReadThrough(), kGetA);
    second.Send("data\n[A]\nx=9\n.\n");
    EXPECT_EQ(get.Join(), "[A]\nx=9\n") << cut;  // nothing is left of the first
  }
}

TEST(TavixSettingsClientImplSingleThreaded, AnOutcomeThatIsCutOffAnywhereIsAskedForAgain) {
  const std::string reply = "result\nfailure\n";
  ScriptedServer server;
  for (size_t cut = 0; cut < reply.size(); ++cut) {
    Client client;
    bool merged = false;
    BackgroundCall call([&] { merged = client.TestAndMerge(IniFile(), IniFile()); });
    ServerEnd first = server.Accept();
    first.ReadThrough(), first.ReadThrough();
    first.Send(reply.substr(0, cut));
    first.Close();
    server.Accept().Send("result\nok\n");
    call.Join();
    EXPECT_TRUE(merged) << cut;
  }
}

// The rest of a reply must not meet the next request.
TEST(TavixSettingsClientImplSingleThreaded, AReplyThatCannotBeParsedEndsItsConnectionAndIsAskedForAgain) {
  ScriptedServer server;
  const Client client;
  const auto messages = LogOf([&] {
    PendingGet get(client);
    ServerEnd first = server.Accept();
    EXPECT_EQ(first.ReadThrough(), kGetA);
    first.Send("data\nno setting\n.\ndata\n[Wrong]\n.\n");
    ServerEnd second = server.Accept();
    EXPECT_EQ(first.ReadToEnd(), "");
    EXPECT_EQ(second.ReadThrough(), kGetA);
    second.Send("data\n[A]\nx=1\n.\n");
    EXPECT_EQ(get.Join(), "[A]\nx=1\n");
  });
  EXPECT_THAT(messages, testing::ElementsAre(testing::StartsWith("ERROR TavixSettings: reply:1: ")));
}

TEST(TavixSettingsClientImplSingleThreaded, EachFailedExchangeEndsItsConnection) {
  ScriptedServer server;
  const Client client;
  PendingGet get(client);
  std::deque<ServerEnd> peers;
  for (int tries = 0; tries < 5; ++tries) {
    peers.push_back(server.Accept());
    EXPECT_EQ(peers.back().ReadThrough(), kGetA);
    peers.back().HalfClose();  // the reading side alone would not notice that
  }
  EXPECT_THROW(get.Join(), Exception);
  for (ServerEnd& peer : peers) EXPECT_EQ(peer.ReadToEnd(), "");
}

TEST(TavixSettingsClientImplSingleThreaded, AFailedCallLeavesTheDocumentAsItWas) {
  ScriptedServer server;
  const Client client;
  IniFile out = DocumentOf("[A]\nx=0\n");
  BackgroundCall call([&] { client.GetSettings({"A"}, out); });
  for (int tries = 0; tries < 5; ++tries) {
    ServerEnd peer = server.Accept();
    peer.ReadThrough();
    peer.Send("data\n[A]\nx=1\n[B]\n");
  }
  EXPECT_THROW(call.Join(), Exception);
  EXPECT_EQ(TextOf(out), "[A]\nx=0\n");
}

TEST(TavixSettingsClientImplSingleThreaded, AReplyKeepsWhatItDoesNotMention) {
  ScriptedServer server;
  const Client client;
  IniFile out = DocumentOf("[A]\nx=0\ny=0\n[B]\n");
  BackgroundCall call([&] { EXPECT_TRUE(client.GetSettings({"A"}, out)); });
  server.Accept().Send("data\n[A]\nx=1\n.\n");
  call.Join();
  EXPECT_EQ(TextOf(out), "[A]\nx=1\ny=0\n[B]\n");
}

// Five exchanges of five attempts each, a second between the attempts of an exchange.
TEST(TavixSettingsClientImplSingleThreaded, WithoutAServerACallFailsAfterFiveTimesFiveAttempts) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  const Client client;
  long took = 0;
  const auto messages = LogOf([&] {
    took = MillisecondsOf([&] { EXPECT_THAT([&] { client.Get(); }, testing::ThrowsMessage<Exception>(kFailed)); });
  });
  EXPECT_GE(took, 20000);
  if (tavix::test::IsLongRun()) {
    EXPECT_LT(took, 24000);
  }
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "INFO TavixSettingsConnection: Retrying connection"), 25);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), std::string("ERROR TavixSettings: ") + kFailed), 5);
  const std::string once = "WARNING TavixSettingsConnection: Failed to connect to 127.0.0.1 port ";
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [&](const std::string& message) { return message.rfind(once, 0) == 0; }),
            1);
}

TEST(TavixSettingsClientImplSingleThreaded, SubscribeIsRefusedAndConnectsToNobody) {
  ScriptedServer server;
  RecordingCallback callback;
  Client client;
  EXPECT_THAT(
      [&] { client.Subscribe(&callback, {"A"}); },
      testing::ThrowsMessage<Exception>("TavixSettingsClient::Subscribe not supported in single threaded mode"));
  std::set<std::string> groups;
  client.GetDispatcher().GetAllSubscribedGroups(groups);
  EXPECT_TRUE(groups.empty());
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsClientImplSingleThreaded, NamesThatCannotStandOnALineAreRefusedBeforeAnythingIsDone) {
  ScriptedServer server;
  Client client;
  const IniFile good;
  for (const std::string name : {".", "a\nb", "\n", "A\n.\nquit\n"}) {
    IniFile bad, out;
    bad[name];
    EXPECT_THROW(client.GetSettings({"A", name}, out), Exception) << name;
    EXPECT_THROW(client.MergeSettings(bad, 0), Exception) << name;
    EXPECT_THROW(client.TestAndMerge(bad, good), Exception) << name;
    EXPECT_THROW(client.TestAndMerge(good, bad), Exception) << name;
    EXPECT_THROW(client.OverwriteSettings({name}, good), Exception) << name;
    EXPECT_THROW(client.OverwriteSettings({"A"}, bad), Exception) << name;
    EXPECT_THROW(client.RestoreToDefaults({name}), Exception) << name;
  }
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsClientImplSingleThreaded, AnExceptionOfAnotherTypePassesAndFreesTheClient) {
  int connects = 0;
  const TavixSettingsClientImplSingleThreaded client(new FakeConnection([&] {
    if (++connects == 1) throw std::runtime_error("something else");
    throw Exception("no luck");
  }));
  IniFile out;
  EXPECT_THAT([&] { client.GetSettings({"A"}, out); }, testing::ThrowsMessage<std::runtime_error>("something else"));
  BackgroundCall next([&] { client.GetSettings({"A"}, out); });
  EXPECT_THAT([&] { next.Join(); }, testing::ThrowsMessage<Exception>(kFailed));
  EXPECT_EQ(connects, 1 + 5);
}

TEST(TavixSettingsClientImplSingleThreaded, AWriteThatFailsIsAFailedExchange) {
  auto* connection = new FakeConnection;
  TavixSettingsClientImplSingleThreaded client(connection);
  connection->requests.ClosePipe();
  EXPECT_THAT([&] { client.MergeSettings(IniFile(), 0); }, testing::ThrowsMessage<Exception>(kFailed));
}

TEST(TavixSettingsClientImplSingleThreaded, DeletesItsConnection) {
  struct Counted : FakeConnection {
    explicit Counted(int& count) : _count(count) { ++_count; }
    ~Counted() override { --_count; }
    int& _count;
  };
  int count = 0;
  { const TavixSettingsClientImplSingleThreaded client(new Counted(count)); }
  EXPECT_EQ(count, 0);
}

TEST(TavixSettingsClientImplSingleThreaded, CallsOfManyThreadsRunOneAfterTheOther) {
  ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    while (true) {
      const std::string request = peer.ReadThrough();  // "get delimited\nNAME\n.\n"
      const std::string name = request.substr(14, request.size() - 14 - 3);
      peer.Send("data\n[" + name + "]\nx=1\n.\n");
    }
  });
  const Client client;
  std::deque<BackgroundCall> calls;
  for (int thread = 0; thread < 8; ++thread) {
    calls.emplace_back([&client, thread] {
      for (int i = 0; i < 200; ++i) {
        const std::string name = std::to_string(thread) + "/" + std::to_string(i);
        EXPECT_EQ(client.Get({name}), "[" + name + "]\nx=1\n");
      }
    });
  }
  for (BackgroundCall& call : calls) call.Join();
}

}  // namespace
