#include "programs/bridge/core/SharedGroups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/bridge/core/SharedDevices.h"

// Two devices that share groups.
namespace {

using tavix::bridge::ComposeSharedGroup;
using tavix::bridge::Conflict;
using tavix::bridge::Direction;
using tavix::bridge::First;
using tavix::bridge::Keys;
using tavix::bridge::Rules;
using tavix::bridge::Side;

using SharedGroupsTest = tavix::test::SharedDevicesTest;

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

TEST_F(SharedGroupsTest, AsksAgainOfAGroupThatWasGoneSinceAPersonDecided) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  const auto one = MakeDevice("one", Both(Side::kCentre, First::kRefuse));
  one->store.Set("Net/A", "k", "here");
  one->Start();
  simulation.Add(*one);
  for (int i = 0; i < 50; ++i) simulation.Step();
  one->mirror->Decide(Side::kDevice);
  one->store.Delete("Net/A");
  broker.Put("fleet/Net/A", std::nullopt);
  ASSERT_TRUE(simulation.RunUntilInSync());

  broker.Stall("one");
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  one->store.Set("Net/A", "k", "here");
  broker.Resume("one");
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->mirror->GetState().undecided, 1u);
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, ComposeSharedGroup({{"k", "there"}}, {}));
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

TEST_F(SharedGroupsTest, LeavesAGroupWithoutANameAlone) {
  const auto one = StartDevice("one", Rules({{"all", "*", Direction::kBoth}}, {}, {}));
  one->store.Set("", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Restart();
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->store.Get(""), (Keys{{"k", "1"}}));
  EXPECT_EQ(broker.GetPutCount(), 0u);
}

// What a person decided is about the groups of that moment.
TEST_F(SharedGroupsTest, AsksAPersonAgainForOtherGroups) {
  broker.Put("fleet/Net/A", ComposeSharedGroup({{"k", "there"}}, {}));
  const auto one = MakeDevice("one", Both(Side::kCentre, First::kRefuse));
  one->store.Set("Net/A", "k", "here");
  one->store.Set("Net/B", "k", "here");
  one->Start();
  simulation.Add(*one);
  for (int i = 0; i < 50; ++i) simulation.Step();
  one->mirror->Decide(Side::kDevice);
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Put("fleet/Net/C", ComposeSharedGroup({{"k", "there"}}, {}));
  one->store.Set("Net/C", "k", "here");
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(one->mirror->GetState().undecided, 1u);
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

}  // namespace
