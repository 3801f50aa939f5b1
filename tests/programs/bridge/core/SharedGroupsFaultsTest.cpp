#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>

#include "tests/programs/bridge/core/SharedDevices.h"

// What becomes of shared groups when store, cluster, disk or daemon do not do their part.
namespace {

using tavix::bridge::ComposeSharedGroup;
using tavix::bridge::Keys;
using tavix::bridge::Side;
using tavix::test::Milliseconds;
using tavix::test::SimulatedDevice;
using testing::HasSubstr;
using testing::SizeIs;

using SharedGroupsFaults = tavix::test::SharedDevicesTest;

TEST_F(SharedGroupsFaults, ReportsRemovalsThatAnOlderDaemonCanNotDo) {
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

TEST_F(SharedGroupsFaults, LeavesAValueInAnotherFormAlone) {
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

TEST_F(SharedGroupsFaults, LearnsOfRemovalsWhoseHistoryIsGone) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/B", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  simulation.Step(Milliseconds(20'000));  // it keeps how far it came
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->Kill();
  broker.Put("fleet/Net/A", std::nullopt);
  broker.Put("fleet/Net/C", ComposeSharedGroup({{"k", "1"}}, {}));
  broker.Compact();
  one->Start();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(2));
  EXPECT_TRUE(one->store.Get("Net/A").empty());

  // And in the middle of a link.
  broker.Stall("one");
  broker.Put("fleet/Net/B", std::nullopt);
  broker.Compact();
  broker.Resume("one");
  simulation.Step();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(one->store.Get("Net/B").empty());
  EXPECT_EQ(one->store.Get("Net/C"), (Keys{{"k", "1"}}));
}

TEST_F(SharedGroupsFaults, GoesOnOnceTheDiskHasRoomAgain) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/B", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->state.isFull = true;
  one->store.Set("Net/A", "k", "2");
  broker.Put("fleet/Net/B", ComposeSharedGroup({{"k", "2"}}, {}));
  for (int i = 0; i < 1000; ++i) simulation.Step();
  EXPECT_EQ(one->store.Get("Net/B"), (Keys{{"k", "1"}}));  // nothing is applied that could not be kept
  EXPECT_TRUE(one->mirror->GetState().hasStateFailed);
  EXPECT_EQ(std::count_if(one->log.begin(), one->log.end(),
                          [](const std::string& line) { return line.find("disk is full") != std::string::npos; }),
            1);

  one->state.isFull = false;
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/B"), (Keys{{"k", "2"}}));
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"k", "2"}}, {}));
}

TEST_F(SharedGroupsFaults, KeepsWhatWasTakenThereWhileTheDiskIsFull) {
  const auto one = StartDevice("one", Both());
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Stall("one");
  one->store.Set("Net/A", "k", "1");
  simulation.Step();
  one->state.isFull = true;
  broker.Resume("one");
  for (int i = 0; i < 10; ++i) simulation.Step();
  one->state.isFull = false;
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.GetPutCount(), 1u);
}

// A put whose reply is lost with the link, or with the process, may still be on its way when the link is there again.
class LatePut : public SharedGroupsFaults, public testing::WithParamInterface<bool> {
 protected:
  static constexpr char kKey[] = "fleet/Net/A";

  void StepUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) simulation.Step();
    ASSERT_TRUE(condition());
  }

  // A put of the value is on its way, and the link and perhaps the process end.
  void LosePutOf(SimulatedDevice& device, const std::string& value) {
    broker.Stall("one");
    device.store.Set("Net/A", "k", value);
    const Milliseconds begin = simulation.now;
    while (simulation.now < begin + Milliseconds(1000)) simulation.Step();
    broker.Cut("one");
    simulation.Step();
    broker.Heal("one");
    if (GetParam()) {
      device.Kill();
      device.Start();
    }
  }

  // The link is there again and stands still before the device has seen anything of it.
  void StallNewLink(SimulatedDevice& device) {
    StepUntil([&] { return device.link->GetState() == tavix::bridge::Link::State::kConnected; });
    while (!broker.IsQuiet()) device.Drain();
    broker.Stall("one");
  }
};

TEST_P(LatePut, IsNoChangeOfOthers) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "0");
  one->store.Set("Net/A", "l", "0");
  ASSERT_TRUE(simulation.RunUntilInSync());
  LosePutOf(*one, "1");
  one->store.Set("Net/A", "k", "2");
  StallNewLink(*one);
  simulation.Step();
  ASSERT_EQ(broker.Get(kKey)->bytes, ComposeSharedGroup({{"k", "0"}, {"l", "0"}}, {}));
  broker.CarryOutLatePuts("one");
  ASSERT_EQ(broker.Get(kKey)->bytes, ComposeSharedGroup({{"k", "1"}, {"l", "0"}}, {}));
  broker.Resume("one");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "2"}, {"l", "0"}}));
  EXPECT_EQ(broker.Get(kKey)->bytes, ComposeSharedGroup({{"k", "2"}, {"l", "0"}}, {}));
  EXPECT_EQ(one->report->counters.overridden, 0u);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutRestart, LatePut, testing::Bool());

// Versions of a cluster that was restored from a backup begin anew.
class RestoredCluster : public SharedGroupsFaults {
 protected:
  static constexpr char kKey[] = "fleet/Net/A";

  std::unique_ptr<SimulatedDevice> StartAtAHighVersion() {
    auto device = StartDevice("one", Both());
    for (int i = 0; i < 10; ++i) broker.Put(kKey, ComposeSharedGroup({{"k", std::to_string(i)}}, {}));
    EXPECT_TRUE(simulation.RunUntilInSync());
    return device;
  }

  void Restore(const std::string& value) {
    broker.RestartWith({{kKey, {kKey, ComposeSharedGroup({{"k", value}}, {}), 2}}});
    for (int i = 0; i < 100; ++i) simulation.Step();
  }
};

TEST_F(RestoredCluster, ChangesItsGroupsWhileTheDaemonIsAway) {
  const auto one = StartAtAHighVersion();
  one->mirror->OnLocalLost();
  Restore("restored");
  broker.Put(kKey, ComposeSharedGroup({{"k", "changed"}}, {}));
  for (int i = 0; i < 10; ++i) simulation.Step();
  one->mirror->OnLocalReady();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "changed"}}));
}

TEST_F(RestoredCluster, LacksWhatWasTakenThereWhileTheDaemonWasAway) {
  const auto one = StartAtAHighVersion();
  broker.Stall("one");
  one->store.Set("Net/A", "k", "own");
  for (int i = 0; i < 20; ++i) simulation.Step();
  one->mirror->OnLocalLost();
  broker.Resume("one");
  simulation.Step();
  ASSERT_EQ(broker.Get(kKey)->bytes, ComposeSharedGroup({{"k", "own"}}, {}));
  Restore("restored");
  one->mirror->OnLocalReady();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "restored"}}));
  EXPECT_EQ(one->report->counters.overridden, 1u);
}

TEST_F(SharedGroupsFaults, TriesEverLessOftenWhatTheDeviceRefuses) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.isRefusing = true;
  const size_t before = one->store.amends;
  const size_t commits = one->state.commits;
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "2"}}, {}));
  for (int i = 0; i < 1200; ++i) simulation.Step();  // a minute
  EXPECT_THAT(one->store.amends - before, testing::AllOf(testing::Ge(3u), testing::Le(12u)));
  EXPECT_LE(one->state.commits - commits, 20u);
  EXPECT_EQ(one->mirror->GetState().left, 1u);
  EXPECT_THAT(one->report->GetLastError(), HasSubstr("A change of [Net/A] is not taken by the device"));
  EXPECT_EQ(one->report->counters.refused, 1u);

  one->store.isRefusing = false;
  for (int i = 0; i < 1300; ++i) simulation.Step();
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "2"}}));
  EXPECT_TRUE(one->mirror->GetState().isInSync);
}

TEST_F(SharedGroupsFaults, TriesAgainWhatTheOtherEndRefused) {
  const auto one = StartDevice("one", Both());
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RefusePuts(2);
  one->store.Set("Net/A", "k", "1");
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_FALSE(broker.Get("fleet/Net/A"));
  EXPECT_EQ(one->mirror->GetState().left, 1u);
  broker.Restart();  // once for each link
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->report->counters.refused, 2u);
  simulation.Step(Milliseconds(10 * 60'000));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(broker.Get("fleet/Net/A"));
}

TEST_F(SharedGroupsFaults, IsInSyncOnceOthersMadeARemovalThatWasRefused) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RefusePuts(1);
  one->store.Delete("Net/A");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(one->mirror->GetState().left, 1u);
  broker.Put("fleet/Net/A", std::nullopt);
  EXPECT_TRUE(simulation.RunUntilInSync(100));
}

// A neighbour that is faster each time: its keys are never overwritten without having been seen.
TEST_F(SharedGroupsFaults, OverwritesNothingHoweverOftenOthersAreFaster) {
  for (const Side winner : {Side::kCentre, Side::kDevice}) {
    const std::string name = winner == Side::kCentre ? "centre" : "device";
    const auto one = MakeDevice(name, Both(winner));
    tavix::test::Simulation life(broker);
    life.Add(*one);
    one->Start();
    const std::string key = "fleet/Net/" + name;
    one->store.Set("Net/" + name, "k", "0");
    ASSERT_TRUE(life.RunUntilInSync());
    one->store.Set("Net/" + name, "mine", "1");
    size_t written = 0;
    for (int i = 0; i < 400 && written < 12; ++i) {
      broker.Stall(name);
      life.Step();
      Keys theirs = tavix::bridge::ParseSharedGroup(*broker.Get(key)->bytes, 10'000).keys;
      theirs["theirs" + std::to_string(written)] = "1";
      if (!one->mirror->GetState().isInSync) {
        broker.Put(key, ComposeSharedGroup(theirs, {}));
        ++written;
      }
      broker.Resume(name);
      life.Step();
    }
    EXPECT_EQ(written, 12u);
    ASSERT_TRUE(life.RunUntilInSync());
    EXPECT_THAT(one->store.Get("Net/" + name), SizeIs(14));
    EXPECT_EQ(broker.Get(key)->bytes, ComposeSharedGroup(one->store.Get("Net/" + name), {}));
    EXPECT_EQ(one->report->counters.overridden, 0u);
    one->Kill();
  }
}

TEST_F(SharedGroupsFaults, SendsALocalChangeBesideARemovalThatIsNotSupported) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "k", "1");
  one->store.Set("Net/A", "l", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.canRemove = false;
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"l", "2"}}, {}));
  for (int i = 0; i < 50; ++i) simulation.Step();
  one->store.Set("Net/A", "own", "1");
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"l", "2"}, {"own", "1"}}, {}));
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "1"}, {"l", "2"}, {"own", "1"}}));

  // The daemon was renewed.
  one->store.canRemove = true;
  one->mirror->OnLocalLost();
  one->mirror->OnLocalReady();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"l", "2"}, {"own", "1"}}));
}

}  // namespace
