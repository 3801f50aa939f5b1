#include "programs/bridge/core/SharedGroups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "programs/bridge/formats/SharedGroup.h"
#include "tests/programs/bridge/core/SimulatedDevice.h"
#include "tests/support/RunLength.h"

// Two devices that share groups, and the store behind the engine between them.
namespace {

using tavix::bridge::Capabilities;
using tavix::bridge::ComposeSharedGroup;
using tavix::bridge::Conflict;
using tavix::bridge::Direction;
using tavix::bridge::First;
using tavix::bridge::Keys;
using tavix::bridge::Limits;
using tavix::bridge::MapRule;
using tavix::bridge::MemoryBroker;
using tavix::bridge::Rules;
using tavix::bridge::SharedGroups;
using tavix::bridge::Side;
using tavix::test::Milliseconds;
using tavix::test::SimulatedDevice;
using tavix::test::Simulation;
using testing::HasSubstr;
using testing::SizeIs;

Limits Quick() {
  Limits limits;
  limits.deviceRate = 1000;
  limits.maxConflicts = 100'000;
  limits.reconnectMin = limits.reconnectMax = Milliseconds(200);
  return limits;
}

Rules Both(Side winner = Side::kCentre, First first = First::kCentre) {
  return Rules({{"shared", "Net/*", Direction::kBoth, winner, first}}, {}, {"[*]secret"});
}

struct SharedGroupsTest : testing::Test {
  static constexpr uint64_t kSeed = 17;

  std::unique_ptr<SimulatedDevice> MakeDevice(const std::string& name, const Rules& rules, Limits limits = Quick(),
                                              const std::string& defaults = "") {
    return std::make_unique<SimulatedDevice>(
        broker, name, rules, limits,
        [name](SimulatedDevice& device) {
          return std::make_unique<SharedGroups>(device.rules, device.limits, "fleet", *device.engine, device.store,
                                                device.state, *device.report, kSeed + name.size());
        },
        defaults);
  }

  std::unique_ptr<SimulatedDevice> StartDevice(const std::string& name, const Rules& rules, Limits limits = Quick(),
                                               const std::string& defaults = "") {
    auto device = MakeDevice(name, rules, limits, defaults);
    device->Start();
    simulation.Add(*device);
    return device;
  }

  MemoryBroker broker{Capabilities{true, true}};
  Simulation simulation{broker};
};

TEST_F(SharedGroupsTest, BringsAChangeToTheOtherDeviceByOneMessage) {
  const auto one = StartDevice("one", Both());
  const auto two = StartDevice("two", Both());
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.Set("Net/Eth0", "mtu", "1400");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(two->store.Get("Net/Eth0"), (Keys{{"mtu", "1400"}}));
  EXPECT_EQ(broker.GetPutCount(), 1u);
}

TEST_F(SharedGroupsTest, SendsNothingForAnEqualValue) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/Eth0", "mtu", "1400");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.Set("Net/Eth0", "mtu", "1400");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.GetPutCount(), 1u);
}

TEST_F(SharedGroupsTest, LeavesGroupsOutsideOfItsPatternsAlone) {
  const auto one = StartDevice("one", Rules({{"all", "*", Direction::kBoth}}, {"Private/*"}, {}));
  one->store.Set("Private/Keys", "a", "1");
  one->store.Set("TavixSettings/Log", "a", "1");
  broker.Put("fleet/NetTrusted", ComposeSharedGroup({{"a", "2"}}, {}));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.GetPutCount(), 0u);
  EXPECT_TRUE(one->store.Get("NetTrusted").empty());
}

TEST_F(SharedGroupsTest, MergesByKeyWhatBothChangedWhileCutOff) {
  const auto one = StartDevice("one", Both());
  const auto two = StartDevice("two", Both());
  one->store.Set("Net/Eth0", "mtu", "1400");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Cut("two");
  one->store.Set("Net/Eth0", "mtu", "1");
  one->store.Set("Net/Eth0", "here", "a");
  two->store.Set("Net/Eth0", "mtu", "2");
  two->store.Set("Net/Eth0", "there", "b");
  for (int i = 0; i < 20; ++i) simulation.Step();
  broker.Heal("two");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/Eth0"), (Keys{{"mtu", "1"}, {"here", "a"}, {"there", "b"}}));
  EXPECT_EQ(two->store.Get("Net/Eth0"), one->store.Get("Net/Eth0"));
  EXPECT_THAT(two->report->GetConflicts(), testing::ElementsAre(Conflict{"Net/Eth0", "mtu", "1", "2", Side::kDevice}));
}

TEST_F(SharedGroupsTest, KeepsTheDevicesValueWhereItWins) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}, {"x", "1"}}, {}));
  const auto one = MakeDevice("one", Both(Side::kCentre, First::kDevice));
  one->store.Set("Net/A", "k", "here");
  one->Start();
  simulation.Add(*one);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "here"}, {"x", "1"}}));
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"k", "here"}, {"x", "1"}}, {}));
}

TEST_F(SharedGroupsTest, DoesNothingBeforeAPersonDecidesWhereItIsToRefuse) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  const auto one = MakeDevice("one", Both(Side::kCentre, First::kRefuse));
  one->store.Set("Net/A", "k", "here");
  one->Start();
  simulation.Add(*one);
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "here"}}));
  EXPECT_EQ(one->mirror->GetState().undecided, 1u);

  one->mirror->Decide(Side::kDevice);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"k", "here"}}, {}));
}

TEST_F(SharedGroupsTest, PutsALocalChangeBackWhereTheDirectionIsDown) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  const auto one = StartDevice("one", Rules({{"m", "Net/*", Direction::kDown}}, {}, {}));
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.Set("Net/A", "k", "here");
  one->store.Set("Net/A", "own", "stays");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "there"}, {"own", "stays"}}));
  EXPECT_EQ(one->report->counters.overridden, 1u);
  EXPECT_EQ(broker.GetPutCount(), 0u);
}

TEST_F(SharedGroupsTest, TakesNothingWhereTheDirectionIsUp) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  const auto one = MakeDevice("one", Rules({{"m", "Net/*", Direction::kUp}}, {}, {}));
  one->store.Set("Net/A", "k", "here");
  one->Start();
  simulation.Add(*one);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "here"}}));
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"k", "here"}}, {}));
}

TEST_F(SharedGroupsTest, KeepsAKeyThatANeighbourAddsWhileARemovalIsApplied) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/A", "l", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.beforeAmend = [&] { one->store.Set("Net/A", "new", "2"); };
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"l", "1"}}, {}));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"l", "1"}, {"new", "2"}}));
}

TEST_F(SharedGroupsTest, ReportsRemovalsThatAnOlderDaemonCanNotDo) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/A", "l", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.canRemove = false;
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"l", "2"}}, {}));
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "1"}, {"l", "2"}}));
  EXPECT_EQ(one->report->counters.unsupported, 1u);
  EXPECT_EQ(broker.GetPutCount(), 1u);
  EXPECT_FALSE(one->mirror->GetState().isInSync);
}

TEST_F(SharedGroupsTest, LeavesAValueInAnotherFormAlone) {
  broker.Put("fleet/Net/A", "something else");
  const auto one = MakeDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/B", "k", "1");
  one->Start();
  simulation.Add(*one);
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, "something else");
  EXPECT_TRUE(broker.Get("fleet/Net/B"));
  EXPECT_THAT(one->report->GetLastError(), HasSubstr("[Net/A] is left as it is there: the document is not JSON"));
}

TEST_F(SharedGroupsTest, KeepsMaskedValuesAtHome) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "secret", "pass");
  one->store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, R"({"format":1,"keys":{"k":"1","secret":{"masked":true}}})");
  broker.Put("fleet/Net/A", R"({"format":1,"keys":{"k":"2","secret":"theirs"}})");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "pass"}}));
}

TEST_F(SharedGroupsTest, HoldsTheLossesOfASourceThatIsSuddenlyEmpty) {
  const auto one = StartDevice("one", Both());
  for (int i = 0; i < 30; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RestartWith({});
  for (int i = 0; i < 100; ++i) simulation.Step();
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(30));
  EXPECT_EQ(one->mirror->GetState().held, 30u);
  EXPECT_THAT(one->report->GetLastError(), HasSubstr("A source is suddenly empty: 30 groups"));

  one->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(one->store.Read({"Net/*"}).IsEmpty());
}

TEST_F(SharedGroupsTest, LeavesOutWhatIsBeyondItsLimits) {
  Limits limits = Quick();
  limits.maxGroups = 2;
  const auto one = MakeDevice("one", Both(), limits);
  for (int i = 0; i < 3; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  one->Start();
  simulation.Add(*one);
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_THAT(broker.GetAll(), SizeIs(2));
  EXPECT_EQ(one->report->counters.leftOut, 1u);
  EXPECT_THAT(one->report->GetLastError(), HasSubstr("[Net/2] is left out"));
}

TEST_F(SharedGroupsTest, WrittenOnBothSidesAtOnceNoneDiffers) {
  const auto one = StartDevice("one", Both());
  const auto two = StartDevice("two", Both());
  for (int i = 0; i < 500; ++i) {
    one->store.Set("Net/" + std::to_string(i), "k", "one");
    two->store.Set("Net/" + std::to_string(i), "k", "two");
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Read({"Net/*"}).GetGroups(), two->store.Read({"Net/*"}).GetGroups());
  EXPECT_EQ(one->report->counters.overridden + two->report->counters.overridden, 500u);
}

TEST_F(SharedGroupsTest, SendsNoStaleValueOfABurst) {
  const auto one = StartDevice("one", Both());
  const auto two = StartDevice("two", Both());
  for (int i = 0; i < 20'000; ++i) {
    one->store.Set("Net/" + std::to_string(i % 10), "k", std::to_string(i));
    if (i % 100 == 0) simulation.Step();
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(two->store.Get("Net/9"), (Keys{{"k", "19999"}}));
  EXPECT_EQ(one->report->counters.applied, 0u);
  EXPECT_EQ(two->report->counters.sent, 0u);
}

// Random writes and removals on two devices, with partitions, restarts of all kinds, and processes that end between any
// two steps. Each value is written once, so that it is known what became of it.
class RandomLife : public SharedGroupsTest, public testing::WithParamInterface<Side> {
 protected:
  void Write(SimulatedDevice& device) {
    const std::string group = "Net/" + std::to_string(_random() % 4);
    const std::string key = "k" + std::to_string(_random() % 3);
    const auto before = tavix::bridge::FindValue(device.store.Get(group), key);
    if (_random() % 20 == 0) {
      for (const auto& [name, value] : device.store.Get(group)) _superseded.insert(value);
      device.store.Delete(group);
      return;
    }
    if (_random() % 4 == 0) {
      if (before) _superseded.insert(*before);
      device.store.Unset(group, key);
      return;
    }
    const std::string value = "v" + std::to_string(++_writes);
    _replaced[value] = before.value_or("");
    device.store.Set(group, key, value);
  }

  void Disturb(SimulatedDevice& device, const std::string& name) {
    switch (_random() % 9) {
      case 0:
        broker.Cut(name);
        break;
      case 1:
        broker.Heal(name);
        break;
      case 2:
        broker.Stall(name);
        break;
      case 3:
        broker.Resume(name);
        break;
      case 4:
        broker.BreakAfterNextPut(name);
        break;
      case 5:
        broker.Restart();
        break;
      case 6:
        broker.Compact();
        break;
      case 7:
        device.life.EndIn(_random() % 12);
        break;
      case 8:
        if (!device.IsRunning()) device.Start();
        break;
    }
  }

  void Calm(SimulatedDevice& device, const std::string& name) {
    broker.Heal(name);
    broker.Resume(name);
    device.life = {};
    if (!device.IsRunning()) device.Start();
  }

  // A value and those that were knowingly replaced on the way to it.
  void Account(const std::string& value) {
    for (std::string at = value; !at.empty() && _accounted.insert(at).second; at = _replaced[at]) continue;
  }

  void Account(SimulatedDevice& device) {
    device.Kill();
    for (const Conflict& conflict : device.conflicts) {
      if (conflict.lost) Account(*conflict.lost);
    }
    for (const auto& [group, keys] : device.store.Read({"Net/*"})) {
      for (const auto& [key, value] : keys) Account(value);
    }
  }

  std::mt19937 _random;
  size_t _writes = 0;
  std::map<std::string, std::string> _replaced;  // by what a writer saw
  std::set<std::string> _superseded;             // by removals
  std::set<std::string> _accounted;
};

TEST_P(RandomLife, EndsAlikeAndLosesNothingThatIsNotReported) {
  const unsigned int seeds = tavix::test::IsLongRun() ? 10'000 : 20;
  for (unsigned int seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    _random.seed(seed);
    const std::string suffix = std::to_string(seed);
    const auto one = MakeDevice("one" + suffix, Both(GetParam()));
    const auto two = MakeDevice("two" + suffix, Both(GetParam()));
    Simulation life(broker);
    for (const auto& device : {one.get(), two.get()}) {
      life.Add(*device);
      device->Start();
    }
    for (int i = 0; i < 300; ++i) {
      if (_random() % 3 == 0) Write(_random() % 2 == 0 ? *one : *two);
      if (_random() % 12 == 0) Disturb(*one, "one" + suffix);
      if (_random() % 12 == 0) Disturb(*two, "two" + suffix);
      life.Step();
    }
    Calm(*one, "one" + suffix);
    Calm(*two, "two" + suffix);
    ASSERT_TRUE(life.RunUntilInSync());
    ASSERT_EQ(one->store.Read({"Net/*"}).GetGroups(), two->store.Read({"Net/*"}).GetGroups());

    const size_t puts = broker.GetPutCount();
    for (int i = 0; i < 100; ++i) life.Step();
    EXPECT_EQ(broker.GetPutCount(), puts);

    Account(*one);
    Account(*two);
    for (const std::string& value : _superseded) Account(value);
    for (const auto& [value, replaced] : _replaced) {
      ASSERT_EQ(_accounted.count(value), 1u) << value << " is lost, and nobody reported it";
    }
    EXPECT_EQ(one->counted + two->counted, one->conflicts.size() + two->conflicts.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Shared, RandomLife, testing::Values(Side::kCentre, Side::kDevice));

}  // namespace
