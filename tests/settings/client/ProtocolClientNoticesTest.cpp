// The protocol client and notices that come between requests and replies, or that nobody asks for.

#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "tests/settings/client/ProtocolClientTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char kListHead[] = "Subscribed groups\n-----------------\n";
constexpr std::chrono::milliseconds kNow{0};

std::string NoticeOf(const std::string& group, const std::string& value) {
  return "async change\n" + group + "\n.\n[" + group + "]\nk=" + value + "\n.\n";
}

// The bytes that the kernel has received for it.
size_t CountUnread(const settings::client::ProtocolClient& client) {
  int bytes = 0;
  ioctl(client.GetDescriptor(), FIONREAD, &bytes);
  return static_cast<size_t>(bytes);
}

std::string ReadRequests(ServerEnd& peer, int lists) {
  std::string text;
  for (; lists > 0; --lists) text += peer.ReadThrough();
  return text;
}

}  // namespace

class ProtocolClientNotices : public ProtocolClientTest {
 protected:
  // The list that comes for a subscribed client when "list" stands behind its head.
  std::vector<std::string> ListOf(const std::string& list) {
    const ScriptedServer server;
    const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
      ReadRequests(peer, 2);
      peer.Send("data\n.\n");
      ReadRequests(peer, 1);
      peer.Send(kListHead + list);
      peer.ReadToEnd();
    });
    Client client(Patient());
    client.Subscribe({"a"});
    std::vector<std::string> names = client.GetSubscribed();
    while (client.AwaitNotice(kNow)) ++_notices;
    return names;
  }

  int _notices = 0;
};

TEST_F(ProtocolClientNotices, MayComeBehindAListOfSubscriptions) {
  EXPECT_THAT(ListOf("a\nb\n\n" + NoticeOf("a", "1") + NoticeOf("b", "1") + "data\n.\n"), ElementsAre("a", "b"));
  EXPECT_THAT(ListOf("\n" + NoticeOf("a", "1") + "data\n.\n"), IsEmpty());
  EXPECT_THAT(ListOf("\n\n" + NoticeOf("", "1") + "data\n.\n"), ElementsAre(""));
  EXPECT_EQ(_notices, 4);
}

TEST_F(ProtocolClientNotices, ThatWereReceivedAndNotTakenAreKnown) {
  Answer({NoticeOf("a", "1") + "data\n.\n"});
  Client client(Patient());
  EXPECT_FALSE(client.HasReceived());
  client.Flush();
  EXPECT_TRUE(client.HasReceived());
  EXPECT_TRUE(client.AwaitNotice(kNow));
  EXPECT_FALSE(client.HasReceived());
}

TEST_F(ProtocolClientNotices, ThatWereReceivedInPartAreKnown) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    peer.Send("data\n.\nasync change\na\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.Flush();
  EXPECT_TRUE(Eventually([&] { return !client.AwaitNotice(kNow) && client.HasReceived(); }));
}

TEST_F(ProtocolClientNotices, MayComeInFrontOfAListOfSubscriptions) {
  Answer({NoticeOf("a", "1") + kListHead + "a\n\ndata\n.\n"});
  Client client(Patient());
  EXPECT_THAT(client.GetSubscribed(), ElementsAre("a"));
  EXPECT_TRUE(client.AwaitNotice(kNow));
}

TEST_F(ProtocolClientNotices, MayComeAroundTheFiguresOfAServer) {
  Answer({NoticeOf("a", "1") + "Server\n------\nversion=9\n\n" + NoticeOf("b", "1") + "data\n.\n"});
  Client client(Patient());
  EXPECT_THAT(client.GetServerInfo(), ElementsAre(testing::Pair("version", "9")));
  EXPECT_EQ(client.AwaitNotice(kNow)->groups, (Groups{"a"}));
  EXPECT_EQ(client.AwaitNotice(kNow)->groups, (Groups{"b"}));
}

// Names may be words of the protocol.
TEST_F(ProtocolClientNotices, AListOfSubscriptionsEndsWhereItsNamesDo) {
  EXPECT_THAT(ListOf("\ndata\n.\n"), IsEmpty());
  EXPECT_THAT(ListOf("\n\ndata\n.\n"), ElementsAre(""));
  EXPECT_THAT(ListOf("\ndata\n\ndata\n.\n"), ElementsAre("", "data"));
  EXPECT_THAT(ListOf("\nb\ndata\n\ndata\n.\n"), ElementsAre("", "b", "data"));
  EXPECT_THAT(ListOf("async change\ndata\n\ndata\n.\n"), ElementsAre("async change", "data"));
  EXPECT_EQ(_notices, 0);
}

TEST_F(ProtocolClientNotices, AClientWithoutSubscriptionsTakesNoNameForANotice) {
  Answer({kListHead + std::string("\nasync change\n\ndata\n.\n")});
  EXPECT_THAT(Client(Patient()).GetSubscribed(), ElementsAre("", "async change"));
}

TEST_F(ProtocolClientNotices, ASubscriptionIsReadInPartsThatAServerTakes) {
  Groups patterns;
  for (int i = 0; i < 600; ++i) patterns.insert("p" + std::to_string(i) + "/*");
  std::vector<size_t> sizes;
  Serve([&](ServerEnd& peer) {
    peer.ReadThrough();
    for (int part = 0; part < 3; ++part) {
      const std::string request = peer.ReadThrough();
      sizes.push_back(static_cast<size_t>(std::count(request.begin(), request.end(), '*')));
      peer.Send("data\n[p" + std::to_string(part) + "]\n.\n");
    }
    peer.ReadToEnd();
  });
  EXPECT_EQ(TextOf(Client(Patient()).Subscribe(patterns)), "[p0]\n[p1]\n[p2]\n");
  EXPECT_THAT(sizes, ElementsAre(256U, 256U, 88U));
}

// What is about both parts holds what the later one says; a notice between them counts for the first part alone.
TEST_F(ProtocolClientNotices, TheLaterPartOfASubscriptionIsTheNewerOne) {
  Groups patterns{"a/*", "z/*", "*/both"};
  for (int i = 0; i < 254; ++i) patterns.insert("b" + std::to_string(i) + "/*");
  Serve([&](ServerEnd& peer) {
    ReadRequests(peer, 2);
    peer.Send("data\n[a/both]\nk=1\n[z/both]\nk=1\n.\n" + NoticeOf("b1/x", "2") + NoticeOf("z/both", "2"));
    ReadRequests(peer, 1);
    peer.Send("data\n[z/both]\nk=3\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_EQ(TextOf(client.Subscribe(patterns)), "[a/both]\nk=1\n[z/both]\nk=3\n");
  EXPECT_EQ(client.AwaitNotice(kNow)->groups, (Groups{"b1/x"}));
  EXPECT_FALSE(client.AwaitNotice(kNow));
}

TEST_F(ProtocolClientNotices, ASubscriptionWhoseReplyDoesNotParseLeavesTheConnectionInOrder) {
  Serve([](ServerEnd& peer) {
    ReadRequests(peer, 2);
    peer.Send("data\nwithout a group\n.\n");
    ReadRequests(peer, 1);
    peer.Send("data\n[a]\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { client.Subscribe({"a"}); }), Reason::kUnreadable);
  EXPECT_EQ(TextOf(client.Get({"a"})), "[a]\n");
}

TEST_F(ProtocolClientNotices, AreTakenByWritesToo) {
  Client client(Patient());
  std::string notices;
  for (int i = 0; i < 200; ++i) notices += NoticeOf("a", std::to_string(i));
  ServerEnd peer = _server.Accept();
  peer.Send(notices);
  EXPECT_TRUE(Eventually([&] { return CountUnread(client) == notices.size(); }));
  client.Restore({"b"});
  EXPECT_EQ(CountUnread(client), 0U);
  std::string last;
  size_t count = 0;
  while (const auto notice = client.AwaitNotice(kNow)) {
    last = TextOf(notice->settings);
    ++count;
  }
  EXPECT_EQ(count, Client::kMaxPendingNotices) << "the others were merged";
  EXPECT_EQ(last, "[a]\nk=199\n");
}

TEST_F(ProtocolClientNotices, ThatTakeTooMuchAreDroppedAndReportedOnce) {
  std::string notices;
  for (int i = 0; i < 8; ++i) notices += NoticeOf("a", std::string(1024, 'x'));
  Answer({notices + "data\n.\n", NoticeOf("b", "1") + "data\n.\n"});
  Client::Options options = Patient();
  options.maxPendingBytes = 4 * 1024;
  Client client(options);
  client.Flush();
  const Exception exception = Catch([&] { client.AwaitNotice(kNow); });
  EXPECT_EQ(exception.GetReason(), Reason::kDropped);
  EXPECT_EQ(exception.what(), "notices of " + GetAddress() + " were dropped: too many were pending");
  EXPECT_FALSE(client.AwaitNotice(kNow));
  client.Flush();
  EXPECT_EQ(client.AwaitNotice(kNow)->groups, (Groups{"b"}));
}

TEST_F(ProtocolClientNotices, OneAloneMayBeAsLargeAsAMessage) {
  Client::Options options = Patient();
  options.maxPendingBytes = 1024;
  Client client(options);
  ServerEnd peer = _server.Accept();
  const std::string value(64 * 1024, 'x');
  peer.Send(NoticeOf("a", value) + NoticeOf("a", value));
  for (int i = 0; i < 2; ++i)
    EXPECT_TRUE(client.AwaitNotice(kPatience)->settings.GetValue("a", "k") == value) << "each is taken by itself";
}

TEST_F(ProtocolClientNotices, AWaitWithoutLimitEndsWithTheCall) {
  Client client(Patient());
  client.SetTimeouts({kPatience, kShort});
  EXPECT_FALSE(client.AwaitNotice(std::nullopt));
  EXPECT_TRUE(client.IsOpen());
}

TEST_F(ProtocolClientNotices, ACallEndsInsideOfANotice) {
  Client client(Patient());
  ServerEnd peer = _server.Accept();
  peer.Send("async change\na\n");
  client.SetTimeouts({kPatience, kShort});
  EXPECT_TRUE(Eventually([&] {
    try {
      return client.AwaitNotice(std::nullopt).has_value();
    } catch (const Exception& exception) {
      return exception.GetReason() == Reason::kTimedOut;
    }
  }));
  EXPECT_FALSE(client.IsOpen());
}

TEST_F(ProtocolClientNotices, SilenceInsideOfOneIsFoundByCallsThatDoNotWait) {
  Client client(Patient());
  client.SetTimeouts(Impatient());
  ServerEnd peer = _server.Accept();
  peer.Send("async change\na\n");
  EXPECT_TRUE(Eventually([&] {
    try {
      return client.AwaitNotice(kNow).has_value();
    } catch (const Exception& exception) {
      return exception.GetReason() == Reason::kTimedOut;
    }
  }));
  EXPECT_FALSE(client.IsOpen());
}

TEST_F(ProtocolClientNotices, SilenceBetweenThemIsNone) {
  Client client(Patient());
  client.SetTimeouts(Impatient());
  ServerEnd peer = _server.Accept();
  peer.Send(NoticeOf("a", "1"));
  EXPECT_TRUE(client.AwaitNotice(kPatience));
  EXPECT_FALSE(client.AwaitNotice(2 * kShort));
  EXPECT_FALSE(client.AwaitNotice(kNow));
  EXPECT_TRUE(client.IsOpen());
}

// A trace that throws while a notice is taken has lost a line of it.
TEST_F(ProtocolClientNotices, ATraceThatThrowsInsideOfOneEndsTheConnectionAtOnce) {
  Client client(Patient(), [](char direction, const std::string& line) {
    if (direction == '<' && line == "a") throw std::runtime_error("full");
  });
  ServerEnd peer = _server.Accept();
  peer.Send(NoticeOf("a", "1"));
  EXPECT_THROW(client.AwaitNotice(kPatience), std::runtime_error);
  EXPECT_FALSE(client.IsOpen());
  EXPECT_EQ(peer.ReadToEnd(), "");
}

}  // namespace tavix::test
