#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/support/Loads.h"
#include "tests/support/ProcessFigures.h"

// A change costs what it concerns, not subscribers x patterns: seen by the daemon's processor time.

namespace tavix::test {

namespace {

using Manner = LoadClients::Manner;

constexpr size_t kRounds = 5;
constexpr size_t kTimes = 3;
constexpr double kMaxTimes = 30;  // where trying every pattern takes hundreds of times

LoadSize ShortSize() {
  LoadSize size;
  size.subscribers = 100;
  size.subscribedPatterns = 2'000;
  size.longNames = 100;
  size.newGroups = 2'000;
  return size;
}

// The load's clients of that manner.
LoadClients Find(const Load& load, Manner manner) {
  for (const LoadClients& clients : load.clients) {
    if (clients.manner == manner) return clients;
  }
  throw std::runtime_error("The load " + load.name + " has no such clients");
}

std::list<ProtocolClient> Subscribe(const LoadClients& clients, unsigned short port) {
  std::list<ProtocolClient> connections;
  for (size_t i = 0; i < clients.count; ++i) {
    connections.emplace_back(port).Send(clients.makeRequest(i, 0));
    connections.back().AwaitHandled();
  }
  return connections;
}

// The processor time that the load's changes take of a daemon: the least of a few times, since a machine that stands
// still may count that as the daemon's.
double CostOfChanges(const Daemon& daemon, const Load& load) {
  const LoadClients writer = Find(load, Manner::kRepeat);
  ProtocolClient client(daemon.GetPort());
  client.Send(writer.makeRequest(0, 0));
  client.AwaitHandled();
  double least = std::numeric_limits<double>::max();
  for (size_t time = 0; time < kTimes; ++time) {
    const double before = ProcessorTime(daemon.GetId());
    for (size_t round = 1; round <= kRounds; ++round) {
      client.Send(writer.makeRequest(0, time * kRounds + round));
      client.AwaitHandled();
    }
    least = std::min(least, ProcessorTime(daemon.GetId()) - before);
  }
  return least;
}

void ExpectChangesToCostLittleMore(const Load& load) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const double alone = CostOfChanges(daemon, load);
  const std::list<ProtocolClient> subscribers = Subscribe(Find(load, Manner::kSubscribe), daemon.GetPort());
  const double watched = CostOfChanges(daemon, load);
  std::printf("%zu changes take %.1f ms, with subscribers %.1f ms\n", kRounds, 1e3 * alone, 1e3 * watched);
  EXPECT_LT(watched, kMaxTimes * alone);
}

}  // namespace

TEST(MatchingCost, OfLongNamesDoesNotGrowWithThePatternsOfASubscriber) {
  ExpectChangesToCostLittleMore(MakeLongNamesLoad(ShortSize()));
}

TEST(MatchingCost, OfAFewGroupsDoesNotGrowWithTheSubscribers) {
  ExpectChangesToCostLittleMore(MakeManySubscribersLoad(ShortSize()));
}

TEST(MatchingCost, OfManyGroupsDoesNotGrowWithThePatternsOfASubscriber) {
  ExpectChangesToCostLittleMore(MakeManyNewGroupsLoad(ShortSize()));
}

}  // namespace tavix::test
