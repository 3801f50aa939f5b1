#include "programs/server/connections/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/OwnSockets.h"

namespace tavix::test {

namespace {

using daemon::DurabilityGate;
using Clock = daemon::Connection::Clock;

constexpr int kLongWait = 200 * 1000;  // milliseconds

// A connection whose peer is the test, over a socket that takes a few kilobytes at a time. The test is its loop, too.
// Turns end by the number of their requests alone, however slow the machine is.
class ServerConnection : public testing::Test {
 protected:
  ServerConnection() {
    SetGroup("Large", std::string(100'000, 'v'));
    Connect();
  }

  void Connect() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    _peer = osa::Descriptor(ends[1]);
    const int small = 4096;
    EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    Serve(ends[0]);
  }

  // With buffers as large as the kernel makes them.
  void ConnectOverTcp() {
    const ListeningSocket listener;
    _peer = osa::Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.GetPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(_peer.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    Serve(dup(listener.Accept().Get()));
  }

  void Serve(int descriptor) {
    _descriptor = descriptor;
    _connection = std::make_unique<daemon::Connection>(osa::Descriptor(descriptor), _poll.Get(), _wake.Get(), _shared);
  }

  void SetGroup(const std::string& name, const std::string& value) {
    core::IniFile settings;
    settings.SetValue(name, "k", value);
    _store.MergeSettings(settings, 0);
  }

  bool Receive() { return _connection->OnReadable(_scratch.data(), _scratch.size()); }

  bool Request(const std::string& bytes) {
    EXPECT_TRUE(Send(_peer, bytes));
    return Receive();
  }

  // Every message from now on waits for a change, which is made durable by the gate.
  DurabilityGate::Ticket HoldMessages() { return _gate.Add(nullptr); }

  // Since the test began.
  unsigned long long CountReplies() const {
    return settings::server::ClientHandler::ReadStatistics().replies - _repliesBefore;
  }

  // Takes what has come off the socket.
  std::string TakeWhatHasCome() {
    std::string all;
    char bytes[4096];
    for (ssize_t count; (count = recv(_peer.Get(), bytes, sizeof bytes, MSG_DONTWAIT)) > 0;)
      all.append(bytes, static_cast<size_t>(count));
    return all;
  }

  // Does what a loop does once: gives a turn, or waits for an event. False when the connection has ended, or nothing
  // happens to it.
  bool GoRound() {
    if (_connection->IsCut()) return false;
    if (_connection->HasMore()) return _connection->OnTurn();
    epoll_event event{};
    int count = 0;
    do {
      count = epoll_wait(_poll.Get(), &event, 1, kLongWait);
    } while (count < 0 && errno == EINTR);
    if (count != 1) return false;
    if ((event.events & EPOLLOUT) && !_connection->OnWritable()) return false;
    if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) && !Receive()) return false;
    return !(event.events & EPOLLHUP) || _connection->OnHangUp(_scratch.data(), _scratch.size());
  }

  // Until that much has come, the connection ends, or it does nothing any more.
  std::string ReceiveInRounds(size_t count) {
    std::string received = TakeWhatHasCome();
    while (received.size() < count && GoRound()) received += TakeWhatHasCome();
    return received + TakeWhatHasCome();
  }

  // All that comes while the connection sends, until it is done with that and has nothing more to do.
  std::string ReceiveUntilItEnds() {
    std::string received;
    while (_connection->OnWritable()) received += ReceiveOnce(_peer);
    _connection.reset();
    return received + ReceiveAll(_peer);
  }

  std::set<std::string> GetSubscriptions() const {
    std::set<std::string> groups;
    _store.GetAllSubscribedGroups(groups);
    return groups;
  }

  size_t CountGroups() const { return _store.GetSizes().allGroups; }

  settings::server::SettingsManager _store;
  settings::server::SerializationManager _serializers;
  settings::server::ServerEnv _env{&_store, &_serializers};
  const unsigned long long _repliesBefore = settings::server::ClientHandler::ReadStatistics().replies;
  daemon::Limits _limits;
  daemon::SharedBounds _bounds{daemon::SharedBound(_limits.allRequestBytes),
                               daemon::SharedBound(_limits.allBacklogBytes)};
  daemon::Counters _counters;
  DurabilityGate _gate{true};
  daemon::Connection::Shared _shared{&_env, _limits, _bounds, _counters, &_gate, kLongWait};
  const osa::Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const osa::Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::vector<char> _scratch = std::vector<char>(64 * 1024);
  osa::Descriptor _peer;
  int _descriptor = -1;  // the connection's own
  std::unique_ptr<daemon::Connection> _connection;
};

const std::string kLargeReply = "[Large]\nk=" + std::string(100'000, 'v') + "\n";

// That many merges, each of a group of its own.
std::string MergeGroups(int count) {
  std::string merges;
  for (int i = 0; i < count; ++i) merges += "merge\n[M" + std::to_string(i) + "]\na=1\n.\n";
  return merges;
}

std::string Repeated(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

}  // namespace

TEST_F(ServerConnection, SubscriptionEndsWithTheQuitThoughRepliesAreStillToBeSent) {
  EXPECT_TRUE(Request("subscribe\nLarge\n.\nget\nLarge\n.\n"));
  EXPECT_THAT(GetSubscriptions(), testing::ElementsAre("Large"));
  EXPECT_TRUE(Request("quit\nget\nLarge\n.\n"));
  EXPECT_THAT(GetSubscriptions(), testing::IsEmpty());
  EXPECT_EQ(ReceiveUntilItEnds(), kLargeReply);
}

TEST_F(ServerConnection, NothingIsLeftToDoBehindAQuitThatIsTheLastOfATurn) {
  std::string requests = "get\nLarge\n.\n";
  for (int i = 1; i < 63; ++i) requests += "\n";
  EXPECT_TRUE(Request(requests + "quit\nget\nLarge\n.\n"));
  EXPECT_FALSE(_connection->HasMore());
  EXPECT_EQ(ReceiveUntilItEnds(), kLargeReply);
}

TEST_F(ServerConnection, RequestThatCanNotBeParsedEndsTheSubscriptionAndTakesNoReplyBack) {
  EXPECT_TRUE(Request("subscribe\nLarge\n.\nget\nLarge\n.\nmerge\n[Open\n.\nget\nLarge\n.\n"));
  EXPECT_THAT(GetSubscriptions(), testing::IsEmpty());
  EXPECT_EQ(ReceiveUntilItEnds(), kLargeReply);
}

TEST_F(ServerConnection, PeerThatIsGoneEndsIt) {
  EXPECT_TRUE(Request("get\nLarge\n.\nquit\n"));
  _peer.Reset();
  EXPECT_FALSE(_connection->OnWritable());
}

// The loop looks what it has to wait for while another thread, which makes changes durable, empties the queue and fills
// it again.
TEST_F(ServerConnection, OutputThatWasHeldGoesOnWhereverItsSendingStopped) {
  SetGroup("Huge", std::string(2 * _limits.pauseBytes, 'h'));
  SetGroup("A", "1");
  FillOutput(_descriptor);
  EXPECT_TRUE(Request("get\nA\n.\n"));  // waits for the peer
  const DurabilityGate::Ticket first = HoldMessages();
  EXPECT_TRUE(Request("get\nA\n.\n"));  // waits for the first
  TakeWhatHasCome();
  _gate.SetDurable(first);
  EXPECT_EQ(TakeWhatHasCome(), "[A]\nk=1\n[A]\nk=1\n");
  const DurabilityGate::Ticket second = HoldMessages();
  EXPECT_TRUE(Request("get\nHuge\n.\n"));  // the loop has nothing to wait for
  _gate.SetDurable(second);                // and now it has
  const std::string reply = "[Huge]\nk=" + std::string(2 * _limits.pauseBytes, 'h') + "\n";
  EXPECT_EQ(ReceiveInRounds(reply.size()).size(), reply.size());
}

// The request behind a reply that was too much is left; that reply leaves before the loop has looked why.
TEST_F(ServerConnection, RequestsThatWereLeftForWantOfRoomGoOnWhoeverMadeTheRoom) {
  _limits.pauseBytes = 4;
  SetGroup("A", "1");
  const std::string reply = "[A]\nk=1\n";
  const std::string left = "get\nA\n" + std::string(60'000, 'x') + "\n.\n";  // copied between the two
  for (int i = 0; i < 2000; ++i) {
    const DurabilityGate::Ticket ticket = HoldMessages();
    const unsigned long long before = CountReplies();
    BackgroundCall sync([&] {
      while (CountReplies() == before) std::this_thread::yield();
      for (volatile int wait = i % 100 * 100; wait > 0; wait = wait - 1) continue;
      _gate.SetDurable(ticket);
    });
    EXPECT_TRUE(Request("get\nA\n.\n" + left));
    ASSERT_EQ(ReceiveInRounds(2 * reply.size()), Repeated(2, reply)) << i;
    sync.Join();
  }
}

// Nothing is read from it while its replies wait for it.
TEST_F(ServerConnection, RequestThatIsLeftUnreadIsNotUnfinished) {
  const std::chrono::seconds limit(_limits.requestSeconds);
  SetGroup("Huge", std::string(2 * _limits.pauseBytes, 'h'));
  EXPECT_TRUE(Request("get\nHuge\n.\nmerge\n[A]\nx=1\n"));
  EXPECT_TRUE(_connection->OnTick(Clock::now() + std::chrono::hours(1)));
  const Clock::time_point unread = Clock::now();
  const std::string reply = "[Huge]\nk=" + std::string(2 * _limits.pauseBytes, 'h') + "\n";
  EXPECT_EQ(ReceiveInRounds(reply.size()).size(), reply.size());
  EXPECT_TRUE(_connection->OnTick(unread + limit)) << "it counts from when it could be read again";
  EXPECT_FALSE(_connection->OnTick(Clock::now() + limit + std::chrono::seconds(1)));
}

TEST_F(ServerConnection, RequestsOfAPeerThatReadsNoMoreAreCarriedOut) {
  EXPECT_TRUE(Send(_peer, "subscribe\nM*\n.\nget\nLarge\n.\n" + MergeGroups(1000)));
  _peer.Reset();
  while (GoRound()) continue;
  EXPECT_EQ(CountGroups(), 1u + 1000u);
  EXPECT_EQ(_counters.cut[static_cast<size_t>(daemon::CutReason::kError)].Get(), 0u);
}

TEST_F(ServerConnection, RequestsOfAPeerThatEndedItsReadingAloneAreCarriedOutForAsLongAsItSends) {
  EXPECT_EQ(shutdown(_peer.Get(), SHUT_RD), 0);
  EXPECT_TRUE(Send(_peer, "get\nLarge\n.\n"));
  EXPECT_TRUE(GoRound());
  EXPECT_TRUE(Send(_peer, MergeGroups(1000)));
  _peer.Reset();
  while (GoRound()) continue;
  EXPECT_EQ(CountGroups(), 1u + 1000u);
}

// As when the peer is gone while its requests waited for it to read.
TEST_F(ServerConnection, RequestsThatAreLeftWhenThePeerHangsUpAreCarriedOut) {
  SetGroup("Huge", std::string(2 * _limits.pauseBytes, 'h'));
  EXPECT_TRUE(Request("get\nHuge\n.\n" + MergeGroups(100) + "merge\n[Unfinished]\n"));
  EXPECT_EQ(CountGroups(), 2u);
  _peer.Reset();
  while (GoRound()) continue;
  EXPECT_EQ(CountGroups(), 2u + 100u);
}

TEST_F(ServerConnection, PeerThatHasLeftIsGivenNoMoreThanOneAnswer) {
  EXPECT_TRUE(Send(_peer, Repeated(1000, "get\nLarge\n.\n") + "merge\n[Last]\nx=1\n.\n"));
  _peer.Reset();
  while (GoRound()) continue;
  EXPECT_EQ(CountReplies(), 1u);
  EXPECT_EQ(CountGroups(), 2u) << "changes are made";
}

TEST_F(ServerConnection, PeerThatHasLeftOverTcpIsGivenNoMoreThanOneLargeAnswer) {
  ConnectOverTcp();
  EXPECT_TRUE(Send(_peer, Repeated(1000, "get\nLarge\n.\n") + "merge\n[Last]\nx=1\n.\n"));
  _peer.Reset();
  while (GoRound()) continue;
  EXPECT_EQ(CountReplies(), 1u);
  EXPECT_EQ(CountGroups(), 2u) << "changes are made";
}

TEST_F(ServerConnection, PeerThatOnlySendsNoMoreIsGivenAllAnswers) {
  ConnectOverTcp();
  EXPECT_TRUE(Send(_peer, Repeated(30, "get\nLarge\n.\n")));
  EXPECT_EQ(shutdown(_peer.Get(), SHUT_WR), 0);
  const std::string answers = Repeated(30, kLargeReply);
  EXPECT_EQ(ReceiveInRounds(answers.size()).size(), answers.size());
  EXPECT_EQ(CountReplies(), 30u);
}

TEST_F(ServerConnection, ManyRequestsBeforeTheEndOfTheInputAreHandledInTurns) {
  EXPECT_TRUE(Send(_peer, MergeGroups(1000)));
  EXPECT_EQ(shutdown(_peer.Get(), SHUT_WR), 0);
  size_t most = 0;
  for (size_t before = CountGroups(); GoRound(); before = CountGroups()) most = std::max(most, CountGroups() - before);
  EXPECT_EQ(CountGroups(), 1u + 1000u);
  EXPECT_LE(most, 64u);
}

TEST_F(ServerConnection, TurnOfLongRequestsEndsBeforeItHasHadAll) {
  _shared.turnMilliseconds = 5;
  Connect();
  core::IniFile settings;
  for (int i = 0; i < 20'000; ++i) settings.SetValue("Group/" + std::to_string(i), "k", "v");
  _store.MergeSettings(settings, 0);
  std::string patterns;
  for (int i = 0; i < 100; ++i) patterns += "*x" + std::to_string(i) + "\n";
  EXPECT_TRUE(Request(Repeated(30, "get\n" + patterns + ".\n")));
  EXPECT_TRUE(_connection->HasMore());
}

TEST_F(ServerConnection, ThatCanNotBeWatchedIsNotMade) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const osa::Descriptor peer(ends[1]);
  EXPECT_THROW(daemon::Connection(osa::Descriptor(ends[0]), -1, _wake.Get(), _shared), osa::Exception);
  EXPECT_EQ(ReceiveAll(peer), "");
}

// On a unix socket, too, where bytes that are left unread would have the peer find a reset, and no replies.
TEST_F(ServerConnection, BytesBehindARequestThatCanNotBeParsedAreDropped) {
  SetGroup("A", "1");
  const std::string requests = "get\nA\n.\nmerge\n[Open\n.\n";
  ASSERT_TRUE(Send(_peer, requests));
  EXPECT_FALSE(_connection->OnReadable(_scratch.data(), requests.size()));
  ASSERT_TRUE(Send(_peer, std::string(40'000, 'x')));
  _connection.reset();
  EXPECT_EQ(ReceiveAll(_peer), "[A]\nk=1\n");
  char byte = 0;
  EXPECT_EQ(recv(_peer.Get(), &byte, 1, 0), 0) << "an end, and no reset";
}

}  // namespace tavix::test
