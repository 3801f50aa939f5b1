#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "tests/programs/server/load/LoadParameter.h"
#include "tests/programs/server/load/LoadedDaemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/OtherClients.h"

// A load on a daemon with one loop, which it shares with others. What the others have changed, the load's own
// connection reads between its requests.

namespace tavix::test {

namespace {

// Large enough for each request of a load to last much longer than one of the others.
LoadSize Size() {
  LoadSize size;
  size.storeGroups = 20'000;
  return size;
}

// Short requests that are much work.
std::vector<Load> LoadsOfLongWork() {
  std::vector<Load> loads = MakeStoreLoads(Size());
  const auto isLongItself = [](const Load& one) { return one.isSaved || one.name == "large-merges"; };
  loads.erase(std::remove_if(loads.begin(), loads.end(), isLongItself), loads.end());
  return loads;
}

class LoadOnTheSameLoop : public testing::TestWithParam<Load> {};

constexpr char kAskForChanges[] = "get delimited\nOthers/Own0\n.\n";

// The next reply to that: how often one of the others has changed its group.
size_t ReadChanges(ProtocolClient& client) {
  client.ReadUntil("data\n[Others/Own0]\nn=");
  return std::stoul(client.ReadLine());
}

}  // namespace

// Were the requests carried out one after the other, the others would be answered about as often as the load, in every
// round. Otherwise they fall short of that number only where a busy machine keeps the test from asking.
TEST_P(LoadOnTheSameLoop, LeavesTheOthersManyAnswersForEachOfItsOwn) {
  constexpr size_t kRequests = 5;
  constexpr size_t kAnswersForEach = 10;
  constexpr size_t kMaxRounds = 100;
  LoadedDaemon daemon(Size(), GetParam(), {"--loops", "1"});
  OtherClients others(daemon.GetPort(), std::chrono::milliseconds(0));
  ASSERT_TRUE(Eventually([&] { return others.CountAnswered() > 0; }));
  std::string requests = kAskForChanges;
  for (size_t i = 0; i < kRequests; ++i) requests += GetParam().clients.front().makeRequest(0, i) + kAskForChanges;
  ProtocolClient load(daemon.GetPort());
  size_t most = 0;
  for (size_t round = 0; round < kMaxRounds && most < kAnswersForEach * kRequests; ++round) {
    load.Send(requests);
    const size_t before = ReadChanges(load);
    size_t after = before;
    for (size_t i = 0; i < kRequests; ++i) after = ReadChanges(load);
    most = std::max(most, after - before);
  }
  EXPECT_GE(most, kAnswersForEach * kRequests);
  others.Stop();
  EXPECT_EQ(others.GetFailures(), "");
}

INSTANTIATE_TEST_SUITE_P(Load, LoadOnTheSameLoop, testing::ValuesIn(LoadsOfLongWork()), NameOf);

}  // namespace tavix::test
