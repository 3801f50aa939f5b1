#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/OwnLoopbackAddress.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

constexpr long kLimit = 2000;  // milliseconds, on a machine that has nothing else to do
constexpr size_t kLarge = 8 * 1024 * 1024;

// What is not to be waited for never comes, so that the end alone tells.
void ExpectCleanStop(Daemon& daemon, int signal) {
  const long took = MillisecondsOf([&] { EXPECT_EQ(daemon.Stop(signal), 0); });
  if (IsLongRun()) {
    EXPECT_LT(took, kLimit);
  }
}

// More merges than a socket's buffers hold.
std::string ManyMerges() {
  std::string requests;
  for (int i = 0; i < 20000; ++i) requests += "merge\n[A]\nx=" + std::to_string(i) + "\n.\n";
  return requests;
}

}  // namespace

TEST(Stopping, EitherSignalEndsTheDaemonWithStatus0) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const TemporaryDirectory directory;
    Daemon daemon(directory);
    ProtocolClient client(daemon.GetPort());
    client.AwaitHandled();
    ExpectCleanStop(daemon, signal);
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_EQ(daemon.GetErrors(), "");
  }
}

TEST(Stopping, SecondSignalChangesNothing) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--user-settings", "user.ini"});
  Converse(daemon.GetPort(), "merge\n[A]\nx=1\n.\n");
  daemon.Signal(SIGTERM);
  daemon.Signal(SIGINT);
  ExpectCleanStop(daemon, SIGTERM);
  EXPECT_EQ(ReadSnapshot(directory), "[A]\nx=1\n");
}

TEST(Stopping, IdleClientsAndThoseWithinARequestAreEnded) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--user-settings", "user.ini"});
  std::list<ProtocolClient> clients;
  for (const char* sent :
       {"", "subscribe\n*\n.\n", "merge\n[A]\nx=", "get delimited\nA", "serialize phparray\nmerge\na:1:{"}) {
    for (int i = 0; i < 10; ++i) {
      clients.emplace_back(daemon.GetPort());
      clients.back().AwaitHandled();
      clients.back().Send(sent);
    }
  }
  daemon.AwaitIdle();
  ExpectCleanStop(daemon, SIGTERM);
  for (ProtocolClient& client : clients) client.ReadToEnd();
  EXPECT_FALSE(directory.Has("user.ini"));
}

TEST(Stopping, ClientsThatDoNotReadALargeReplyAreNotWaitedFor) {
  const TemporaryDirectory directory;
  directory.Write("d.ini", "[Large]\nk=" + std::string(kLarge, 'v') + "\n");
  Daemon daemon(directory, {"--defaults", "d.ini"});
  std::list<ProtocolClient> clients;
  for (int i = 0; i < 10; ++i) {
    clients.emplace_back(daemon.GetPort(), 4096);
    clients.back().Send("get delimited\nLarge\n.\n");
    EXPECT_EQ(clients.back().ReadLine(), "data\n");
  }
  ExpectCleanStop(daemon, SIGTERM);
}

TEST(Stopping, SubscriberThatDoesNotReadIsNotWaitedFor) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "67108864"});
  ProtocolClient writer(daemon.GetPort());
  writer.AwaitHandled();
  ProtocolClient subscriber(daemon.GetPort(), 4096);
  subscriber.Send("subscribe\nLarge\n.\n");
  subscriber.AwaitHandled();
  writer.Send("merge\n[Large]\nk=" + std::string(kLarge, 'v') + "\n.\n");
  EXPECT_EQ(subscriber.ReadLine(), "async change\n");
  ExpectCleanStop(daemon, SIGTERM);
}

// What a client has sent ahead may be minutes of work: here there is always more.
TEST(Stopping, RequestsThatClientsSentAheadAreNotWaitedFor) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--user-settings", "user.ini"});
  const unsigned short port = daemon.GetPort();
  std::list<BackgroundCall> senders;
  for (int i = 0; i < 4; ++i) {
    senders.emplace_back([port] {
      ProtocolClient client(port);
      while (client.TrySend(ManyMerges())) continue;
    });
  }
  EXPECT_TRUE(Eventually([&] { return directory.Has("user.ini"); }));
  ExpectCleanStop(daemon, SIGTERM);
  EXPECT_THAT(ReadSnapshot(directory), testing::MatchesRegex("\\[A\\]\nx=[0-9]+\n"));
}

TEST(Stopping, ReadersAndWritersAtFullSpeedAreEnded) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const unsigned short port = daemon.GetPort();
  std::list<BackgroundCall> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([port] {
      ProtocolClient client(port);
      client.AwaitHandled();
      while (client.TrySend("test-and-merge\n.\n[A]\nx=1\n.\nget delimited\nA\n.\n")) client.ReadUntil("\n.\n");
    });
  }
  EXPECT_TRUE(Eventually([&] { return Converse(port, "get\nA\n.\n") == "[A]\nx=1\n"; }));
  ExpectCleanStop(daemon, SIGTERM);
  for (BackgroundCall& client : clients) EXPECT_THROW(client.Join(), std::runtime_error);
}

TEST(Stopping, AddressCanBeListenedOnAgainAtOnce) {
  const TemporaryDirectory directory;
  std::string address = OwnLoopbackAddress() + ":0";
  for (int round = 0; round < 3; ++round) {
    DaemonProcess daemon(ServerProgram(), directory.GetPath(), {"--listen", address});
    address = daemon.AwaitAddresses().front();
    ProtocolClient client(address);
    client.AwaitHandled();
    EXPECT_EQ(daemon.Stop(), 0);  // closes first: its end of the connection stays in TIME_WAIT
    EXPECT_EQ(client.ReadToEnd(), "");
  }
}

}  // namespace tavix::test
