#include "programs/bridge/core/Backoff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/core/Link.h"

namespace {

using tavix::bridge::Backoff;
using tavix::bridge::Capabilities;
using tavix::bridge::Connected;
using tavix::bridge::ConnectOptions;
using tavix::bridge::Engine;
using tavix::bridge::Limits;
using tavix::bridge::Link;
using tavix::bridge::Lost;
using tavix::bridge::Milliseconds;
using tavix::bridge::PutOptions;
using tavix::bridge::Version;

TEST(Backoff, WaitsAtRandomWithinALimitThatDoubles) {
  Backoff backoff(Limits(), 1);
  for (const int limit : {5, 10, 20, 40, 80, 160, 300, 300}) {
    EXPECT_EQ(backoff.GetLimit(), Milliseconds(limit * 1000));
    const Milliseconds wait = backoff.OnLost(Milliseconds(0));
    EXPECT_GE(wait, Milliseconds(0));
    EXPECT_LE(wait, Milliseconds(limit * 1000));
  }
}

TEST(Backoff, FallsBackOnlyBehindAConnectionThatLasted) {
  Backoff backoff(Limits(), 1);
  for (int i = 0; i < 3; ++i) (void)backoff.OnLost(Milliseconds(0));
  backoff.OnConnected(Milliseconds(0));
  (void)backoff.OnLost(Milliseconds(59'999));
  EXPECT_EQ(backoff.GetLimit(), Milliseconds(80'000));
  backoff.OnConnected(Milliseconds(100'000));
  (void)backoff.OnLost(Milliseconds(160'000));
  EXPECT_EQ(backoff.GetLimit(), Milliseconds(10'000));
}

TEST(Backoff, GrowsWhereABrokerClosesWhatItHasJustAccepted) {
  Backoff backoff(Limits(), 1);
  Milliseconds now(0);
  for (int i = 0; i < 20; ++i) {
    backoff.OnConnected(now);
    now += Milliseconds(10);
    now += backoff.OnLost(now);
  }
  EXPECT_EQ(backoff.GetLimit(), Milliseconds(300'000));
}

// Counts the attempts.
class CountingEngine : public Engine {
 public:
  Capabilities GetCapabilities() const override { return {}; }
  void Connect(const ConnectOptions&) override { isConnecting = true; }
  void Close() override {}
  bool Put(const std::string&, const std::optional<std::string>&, const PutOptions&) override { return false; }
  void Follow(const std::vector<std::string>&, Version) override {}

  bool isConnecting = false;
};

// 10,000 devices and a broker, which is away for a while.
struct Fleet : testing::Test {
  static constexpr size_t kDevices = 10'000;

  Fleet() {
    for (size_t i = 0; i < kDevices; ++i) {
      engines.push_back(std::make_unique<CountingEngine>());
      links.push_back(std::make_unique<Link>(Limits(), *engines.back(), i + 1));
      next.emplace(Milliseconds(0), i);
    }
  }

  // Until the given moment, attempt by attempt in the order of their moments.
  void RunUntil(Milliseconds end) {
    while (!next.empty() && next.begin()->first <= end) {
      const auto [moment, device] = *next.begin();
      next.erase(next.begin());
      now = std::max(now, moment);
      links[device]->Run({}, now);
      if (!std::exchange(engines[device]->isConnecting, false)) continue;
      ++attempts[now.count() / 1000];
      if (isBrokerThere) {
        links[device]->OnEvent(Connected(), now);
      } else {
        Lose(device);
      }
    }
    now = end;
  }

  void Lose(size_t device) {
    links[device]->OnEvent(Lost{"restart"}, now);
    next.emplace(*links[device]->GetNext(), device);
  }

  void Break() {
    for (size_t i = 0; i < kDevices; ++i) Lose(i);
    attempts.clear();
  }

  bool AreAllConnected() const {
    return std::all_of(links.begin(), links.end(),
                       [](const auto& link) { return link->GetState() == Link::State::kConnected; });
  }

  // Of full seconds.
  size_t FindPeak() const {
    size_t peak = 0;
    for (const auto& [second, count] : attempts) peak = std::max(peak, count);
    return peak;
  }

  std::vector<std::unique_ptr<CountingEngine>> engines;
  std::vector<std::unique_ptr<Link>> links;
  std::multimap<Milliseconds, size_t> next;  // attempts
  std::map<long long, size_t> attempts;      // by the second
  bool isBrokerThere = true;
  Milliseconds now{0};
};

TEST_F(Fleet, ComesBackSpreadOverTheLimitBehindARestart) {
  RunUntil(Milliseconds(100'000));
  ASSERT_TRUE(AreAllConnected());
  Break();
  RunUntil(now + Milliseconds(5'000));
  EXPECT_TRUE(AreAllConnected());
  EXPECT_LT(FindPeak(), kDevices / 5 * 3 / 2);
}

TEST_F(Fleet, ComesBackSpreadOverALongerLimitBehindALongerAbsence) {
  RunUntil(Milliseconds(100'000));
  isBrokerThere = false;
  Break();
  RunUntil(now + Milliseconds(2'000'000));
  isBrokerThere = true;
  attempts.clear();
  RunUntil(now + Milliseconds(300'000));
  EXPECT_TRUE(AreAllConnected());
  // Each waits half of its limit on average, so that twice as many attempts are made as of a limit's even share.
  EXPECT_LT(FindPeak(), kDevices / 300 * 2 * 3 / 2);
}

}  // namespace
