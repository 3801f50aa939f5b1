#include "programs/server/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/Descriptor.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

// A connection whose peer is the test, over a socket that takes a few kilobytes at a time.
class ServerConnection : public testing::Test {
 protected:
  ServerConnection() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    _peer = Descriptor(ends[1]);
    const int small = 4096;
    EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    _connection =
        std::make_unique<daemon::Connection>(ends[0], _poll.Get(), _wake.Get(), &_env, _limits, _counters, nullptr);
    core::IniFile settings;
    settings.SetValue("Large", "k", std::string(100'000, 'v'));
    _store.MergeSettings(settings, 0);
  }

  bool Request(const std::string& bytes) {
    EXPECT_TRUE(Send(_peer, bytes));
    std::vector<char> scratch(64 * 1024);
    return _connection->OnReadable(scratch.data(), scratch.size());
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

  settings::server::SettingsManager _store;
  settings::server::SerializationManager _serializers;
  settings::server::ServerEnv _env{&_store, &_serializers};
  const daemon::Limits _limits;
  daemon::Counters _counters;
  const Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  Descriptor _peer;
  std::unique_ptr<daemon::Connection> _connection;
};

const std::string kLargeReply = "[Large]\nk=" + std::string(100'000, 'v') + "\n";

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
  _peer.Close();
  EXPECT_FALSE(_connection->OnWritable());
}

}  // namespace tavix::test
