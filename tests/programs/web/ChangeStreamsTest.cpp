#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "programs/web/changes/ChangeStreams.h"
#include "programs/web/service/Wakeup.h"
#include "tavix/settings/client/ProtocolClient.h"
#include "tests/programs/server/Daemon.h"
#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

using web::Connection;
using web::Request;
using web::Response;

// Streams of the changes of a daemon, without the rest of the program.
class Streams : private web::ConnectionOwner {
 public:
  Streams(const std::string& server, web::Milliseconds linger)
      : _wakeup(_base, [this] { _streams.OnNews(); }),
        _streams(
            _base, server, _view, [this] { _wakeup.Wake(); }, linger),
        _look(_base, [this] { LookAgain(); }) {
    std::signal(SIGPIPE, SIG_IGN);  // as the program does
  }

  // libevent frees a connection behind the loop's next round, and forgets one that is left when the loop itself goes.
  ~Streams() {
    if (_connection) OnEnd(*_connection);
    _look.Stop();
    event_base_loop(_base.Get(), EVLOOP_NONBLOCK);
  }

  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  // A client that has asked for changes.
  osa::Descriptor Open() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
      throw std::runtime_error("There are no sockets");
    osa::Descriptor client(ends[1]);
    ConnectionOwner& owner = *this;
    _connection = std::make_unique<Connection>(_base, osa::Descriptor(ends[0]), nullptr, web::Peer{},
                                               web::RequestParser::Limits{}, owner);
    const std::string request = "GET /changes HTTP/1.1\r\nHost: localhost\r\n\r\n";
    if (send(client.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) throw std::runtime_error("Nobody reads");
    return client;
  }

  // Has the loop run until that holds.
  void RunUntil(std::function<bool()> holds) {
    _holds = std::move(holds);
    _look.Start(web::Milliseconds(0));  // an end before the loop runs would be forgotten
    _base.Run();
  }

  bool IsFollowing() const { return _streams.IsFollowing(); }
  size_t GetCount() const { return _streams.GetCount(); }

 private:
  void LookAgain() {
    if (_holds()) return _base.End();
    _look.Start(web::Milliseconds(1));
  }

  void OnHead(Connection& connection, const Request&, size_t) override { connection.AcceptBody(0, nullptr); }
  void OnRequest(Connection& connection, Request& request) override {
    _streams.Open(connection, request, [] { return true; });
  }
  Response OnRefused(int status, const std::string& reason) override { return {status, {}, reason}; }
  void OnStreamDrained(Connection& connection) override { _streams.OnDrained(connection); }
  void OnEnd(Connection& connection) override {
    _streams.OnEnd(connection);
    _connection.reset();
  }

  const web::View _view;
  web::EventBase _base;
  web::Wakeup _wakeup;
  web::ChangeStreams _streams;
  std::unique_ptr<Connection> _connection;
  std::function<bool()> _holds;
  web::LoopEvent _look;
};

// Whether anybody has subscribed to changes of the daemon.
bool HasSubscriptions(const Daemon& daemon) {
  settings::client::ProtocolOptions options;
  options.address = daemon.AwaitAddresses()[0];
  options.timeouts.silence = kPatience;
  return !settings::client::ProtocolClient(options).GetSubscribed().empty();
}

}  // namespace

TEST(ChangeStreams, FollowTheDaemonOnlyWhileSomebodyWatches) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory);
  Streams streams(daemon.AwaitAddresses()[0], web::Milliseconds(0));
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(HasSubscriptions(daemon));
    osa::Descriptor client = streams.Open();
    streams.RunUntil([&] { return HasSubscriptions(daemon); });
    EXPECT_TRUE(streams.IsFollowing());
    EXPECT_EQ(streams.GetCount(), 1U);
    client.Reset();
    streams.RunUntil([&] { return !HasSubscriptions(daemon); });
    EXPECT_FALSE(streams.IsFollowing());
  }
}

TEST(ChangeStreams, FollowTheDaemonForAWhileBehindTheLast) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory);
  Streams streams(daemon.AwaitAddresses()[0], web::ChangeStreams::kLingerTime * 1000);
  osa::Descriptor client = streams.Open();
  streams.RunUntil([&] { return HasSubscriptions(daemon); });
  client.Reset();
  streams.RunUntil([&] { return streams.GetCount() == 0; });
  EXPECT_TRUE(streams.IsFollowing());
  client = streams.Open();
  streams.RunUntil([&] { return streams.GetCount() == 1; });
  EXPECT_TRUE(HasSubscriptions(daemon));
}

}  // namespace tavix::test
