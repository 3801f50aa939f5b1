#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <utility>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

constexpr size_t kMaxConnections = 1024;

// Lets this process have that many descriptors.
void AllowDescriptors(rlim_t count) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_max, count);
  limit.rlim_cur = std::max(limit.rlim_cur, count);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// Whether a connection is served, and then ends; the other possibility is that it is closed at once.
bool IsServedOn(ProtocolClient& client) {
  return client.TrySend("get delimited\n.\nquit\n") && client.ReadToEnd() == "data\n.\n";
}

// The same of a new one.
bool IsServed(unsigned short port) {
  ProtocolClient client(port);
  return IsServedOn(client);
}

// Opens that many connections, and keeps those that are served.
std::list<ProtocolClient> Open(unsigned short port, size_t count) {
  std::list<ProtocolClient> served;
  for (size_t i = 0; i < count; ++i) {
    ProtocolClient client(port);
    if (client.TrySend("get delimited\n.\n") && client.ReadFor(-1) == "data\n.\n") served.push_back(std::move(client));
  }
  return served;
}

// A sanitizer needs descriptors to look at a class for the first time: a connection has to come and go, and a line to
// be logged, before there are none.
void WarmUp(const Daemon& daemon) {
  Converse(daemon.GetPort(), "bogus\n");
  daemon.AwaitIdle();
}

// Changes how many descriptors the daemon may have; returns how many that were.
rlim_t SetDescriptorLimit(const Daemon& daemon, rlim_t count) {
  rlimit limit{};
  EXPECT_EQ(prlimit(daemon.GetId(), RLIMIT_NOFILE, nullptr, &limit), 0);
  const rlim_t before = std::exchange(limit.rlim_cur, count);
  EXPECT_EQ(prlimit(daemon.GetId(), RLIMIT_NOFILE, &limit, nullptr), 0);
  return before;
}

// How many descriptors the daemon's table has room for, once it serves.
size_t FindTableSize(const Daemon& daemon) {
  Converse(daemon.GetPort(), "quit\n");
  return DescriptorTableSize(daemon.GetId());
}

// Looks at seconds in each of which the daemon has ten requests to handle and nothing else. One that spins is busy in
// all of them; a machine that stands still may count that as the daemon's time in one.
void ExpectNoSpinning(const Daemon& daemon, ProtocolClient& client) {
  constexpr double kMaxUsed = 0.3;
  daemon.AwaitIdle();
  double used = 1;
  for (int second = 0; second < 5 && used >= kMaxUsed; ++second) {
    const double before = ProcessorTime(daemon.GetId());
    for (int i = 0; i < 10; ++i) {
      client.AwaitHandled();
      EXPECT_EQ(client.ReadFor(100), "");
    }
    used = ProcessorTime(daemon.GetId()) - before;
  }
  EXPECT_LT(used, kMaxUsed);
}

}  // namespace

TEST(ConnectionLimits, OneConnectionMoreThanTheMostIsClosedAtOnceAndAFreedPlaceIsUsedAgain) {
  AllowDescriptors(2 * kMaxConnections);
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::list<ProtocolClient> clients = Open(daemon.GetPort(), kMaxConnections);
  ASSERT_EQ(clients.size(), kMaxConnections);
  EXPECT_FALSE(IsServed(daemon.GetPort()));
  daemon.AwaitErrors("WARNING Server: Connection refused: 1024 are served already\n");
  clients.back().AwaitHandled();
  clients.pop_front();
  EXPECT_TRUE(Eventually([&] { return IsServed(daemon.GetPort()); }));
}

// One that grew beside other threads would keep a client waiting for about 10 ms.
TEST(ConnectionLimits, TableOfDescriptorsIsLargeEnoughFromTheStart) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory, {"--max-connections", "300"});
  const size_t size = FindTableSize(daemon);
  EXPECT_GT(size, 300u);
  const std::list<ProtocolClient> clients = Open(daemon.GetPort(), 300);
  EXPECT_EQ(clients.size(), 300u);
  EXPECT_EQ(DescriptorTableSize(daemon.GetId()), size);
}

TEST(ConnectionLimits, TableOfDescriptorsIsNoLargerThanConnectionsNeed) {
  const TemporaryDirectory directory;
  const Daemon few(directory, {"--max-connections", "4"});
  EXPECT_LT(FindTableSize(few), 300u);
  const Daemon daemonOf128(directory, {}, {128, {}});
  EXPECT_LE(FindTableSize(daemonOf128), 256u);
  const Daemon million(directory, {"--max-connections", "1000000"});
  EXPECT_LE(FindTableSize(million), 32768u);
}

TEST(ConnectionLimits, PlaceIsFreeWhenItsClientSeesTheEnd) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory, {"--max-connections", "1"});
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(Converse(daemon.GetPort(), "get delimited\n.\nquit\n"), "data\n.\n") << i;
}

TEST(ConnectionLimits, ConnectionsLeaveTheDescriptorsThatASaveNeeds) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--user-settings", "user.ini"}, {64, {}});
  std::list<ProtocolClient> clients = Open(daemon.GetPort(), 100);
  EXPECT_THAT(clients.size(), testing::AllOf(testing::Gt(0u), testing::Lt(64u)));
  clients.back().Send("merge\n[A]\nx=1\n.\n");
  clients.back().AwaitHandled();
  EXPECT_EQ(FindSavedText(directory), "[A]\nx=1\n");
  clients.clear();
  EXPECT_TRUE(Eventually([&] { return IsServed(daemon.GetPort()); }));
}

TEST(ConnectionLimits, EventLoopsHaveTheirDescriptorsBesideThoseOfASave) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--user-settings", "user.ini", "--loops", "64"}, {256, {}});
  std::list<ProtocolClient> clients = Open(daemon.GetPort(), 256);
  EXPECT_THAT(clients.size(), testing::AllOf(testing::Gt(64u), testing::Lt(128u)));
  clients.back().Send("merge\n[A]\nx=1\n.\n");
  clients.back().AwaitHandled();
  EXPECT_EQ(FindSavedText(directory), "[A]\nx=1\n");
  EXPECT_EQ(CountOf("Too many open files", daemon.GetErrors()), 0u);
}

// Peers that connect and reset at once have places for a moment, and ever again.
TEST(ConnectionLimits, PeersThatComeAndResetInALoopDoNotShutOthersOut) {
  constexpr int kConnects = 300;
  const TemporaryDirectory directory;
  const Daemon daemon(directory, {"--max-connections", "4"});
  const unsigned short port = daemon.GetPort();
  std::atomic<bool> ends{false};
  std::list<BackgroundCall> resetters;
  for (int i = 0; i < 6; ++i) {
    resetters.emplace_back([&ends, port] {
      while (!ends) ProtocolClient(port).Reset();
    });
  }
  int refused = 0;
  for (int i = 0; i < kConnects; ++i) refused += IsServed(port) ? 0 : 1;
  ends = true;
  EXPECT_LE(refused, IsLongRun() ? kConnects / 100 : kConnects / 10);
}

// With more connects than a process of 128 descriptors can hold, those that are served are served as before, and what
// they change outlives the daemon.
TEST(ConnectionLimits, FiveHundredConnectsToADaemonOf128DescriptorsHarmNeitherClientsNorSaves) {
  const TemporaryDirectory directory;
  const std::vector<std::string> arguments{"--user-settings", "user.ini"};
  {
    Daemon daemon(directory, arguments, {128, {}});
    std::list<ProtocolClient> clients = Open(daemon.GetPort(), 500);
    EXPECT_THAT(clients.size(), testing::AllOf(testing::Gt(64u), testing::Lt(128u)));
    std::list<ProtocolClient> refused;
    while (refused.size() < 400) refused.emplace_back(daemon.GetPort());
    ExpectNoSpinning(daemon, clients.back());
    int round = 0;
    for (ProtocolClient& client : clients) {
      client.Send("merge\n[A]\nx=" + std::to_string(++round) + "\n.\n");
      EXPECT_EQ(client.Get("A\n"), "data\n[A]\nx=" + std::to_string(round) + "\n.\n");
    }
    EXPECT_LE(CountDescriptors(daemon.GetId()), 128u);
  }
  Daemon restarted(directory, arguments);
  EXPECT_THAT(Converse(restarted.GetPort(), "get\nA\n.\n"), testing::MatchesRegex("\\[A\\]\nx=[0-9]+\n"));
}

// As when the whole system runs out of descriptors.
TEST(ConnectionLimits, DaemonWithoutAFreeDescriptorRefusesConnectionsAndServesTheOthers) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::list<ProtocolClient> clients = Open(daemon.GetPort(), 10);
  WarmUp(daemon);
  const rlim_t before = SetDescriptorLimit(daemon, 12);
  EXPECT_THAT(Open(daemon.GetPort(), 100), testing::IsEmpty());
  ExpectNoSpinning(daemon, clients.back());
  SetDescriptorLimit(daemon, before);  // a sanitizer needs some at the end
}

TEST(ConnectionLimits, DaemonThatCanNotEvenRefuseLetsConnectionsWaitAndDoesNotSpin) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::list<ProtocolClient> clients = Open(daemon.GetPort(), 10);
  WarmUp(daemon);
  const rlim_t before = SetDescriptorLimit(daemon, 3);
  std::list<ProtocolClient> waiting;
  while (waiting.size() < 5) waiting.emplace_back(daemon.GetPort());
  daemon.AwaitErrors("WARNING Server: Connection refused: Too many open files\n");
  ExpectNoSpinning(daemon, clients.back());
  SetDescriptorLimit(daemon, before);
  // The limit may be lifted between the daemon's look and its refusal, which one of them then gets.
  EXPECT_GE(std::count_if(waiting.begin(), waiting.end(), IsServedOn), 4);
}

}  // namespace tavix::test
