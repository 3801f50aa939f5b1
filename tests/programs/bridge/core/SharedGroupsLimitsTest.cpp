#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/programs/bridge/core/SharedDevices.h"

// What becomes of shared groups that are too many, or of which too many lose values at once.
namespace {

using tavix::bridge::ComposeSharedGroup;
using tavix::bridge::Keys;
using tavix::bridge::Limits;
using testing::HasSubstr;
using testing::SizeIs;

using SharedGroupsLimits = tavix::test::SharedDevicesTest;

TEST_F(SharedGroupsLimits, GivesThePlaceOfAGroupThatIsGoneToAnotherOne) {
  Limits limits = Quick();
  limits.maxGroups = 2;
  const auto one = StartDevice("one", Both(), limits);
  for (int i = 0; i < 20; ++i) {
    one->store.Set("Net/" + std::to_string(i), "k", "1");
    ASSERT_TRUE(simulation.RunUntilInSync());
    one->store.Delete("Net/" + std::to_string(i));
    ASSERT_TRUE(simulation.RunUntilInSync());
    simulation.Step(limits.heldWindow);  // they are not lost at once
  }
  for (int i = 0; i < 3; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(one->report->counters.leftOut, 1u);
  one->store.Delete("Net/0");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(broker.GetAll(), SizeIs(2));
}

TEST_F(SharedGroupsLimits, TakesAGroupOfTheOtherEndOnceThereIsRoom) {
  Limits limits = Quick();
  limits.maxGroups = 2;
  for (int i = 0; i < 8; ++i) broker.Put("fleet/Net/" + std::to_string(i), ComposeSharedGroup({{"k", "1"}}, {}));
  const auto one = StartDevice("one", Both(), limits);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(2));
  for (int i = 0; i < 6; ++i) {
    broker.Put("fleet/Net/" + std::to_string(i), std::nullopt);
    EXPECT_EQ(simulation.RunUntilInSync(100), i == 5);
    EXPECT_EQ(one->store.Get("Net/" + std::to_string(i + 2)), (Keys{{"k", "1"}}));
    EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(2));
  }
}

TEST_F(SharedGroupsLimits, GivesTheBytesThatAGroupLosesToAnotherOne) {
  Limits limits = Quick();
  limits.maxPendingBytes = 1000;
  const auto one = StartDevice("one", Both(), limits);
  one->store.Set("Net/0", "k", std::string(900, 'a'));
  ASSERT_TRUE(simulation.RunUntilInSync());
  one->store.Set("Net/1", "k", std::string(500, 'b'));
  broker.Put("fleet/Net/2", ComposeSharedGroup({{"k", std::string(300, 'c')}}, {}));
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(one->report->counters.leftOut, 2u);
  one->store.Set("Net/0", "k", "a");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/2"), (Keys{{"k", std::string(300, 'c')}}));
  EXPECT_THAT(broker.GetAll(), SizeIs(3));
  EXPECT_EQ(one->report->counters.leftOut, 2u);
}

TEST_F(SharedGroupsLimits, LeavesOutWhatIsBeyondItsLimits) {
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

TEST_F(SharedGroupsLimits, HoldsTheLossesOfASourceThatIsSuddenlyEmpty) {
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

TEST_F(SharedGroupsLimits, HoldsTheLossesOfMoreGroupsThanAreReadAtOnce) {
  const auto one = StartDevice("one", Both());
  for (int i = 0; i < 600; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RestartWith({});
  for (int i = 0; i < 100; ++i) simulation.Step();
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(600));
  EXPECT_EQ(one->mirror->GetState().held, 600u);
}

// The mirror runs whenever it may, as it does beside an engine that reports what came one by one.
TEST_F(SharedGroupsLimits, HoldsLossesThatComeOneByOne) {
  const auto one = StartDevice("one", Both());
  for (int i = 0; i < 30; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  const tavix::bridge::Version version = broker.Get("fleet/Net/0")->version + 1000;
  for (int i = 0; i < 30; ++i) {
    const tavix::bridge::Item gone{"fleet/Net/" + std::to_string(i), std::nullopt, version};
    one->mirror->OnEvent(gone, simulation.now);
    one->mirror->Run(simulation.now);
  }
  one->mirror->OnEvent(tavix::bridge::Synced{version, false}, simulation.now);
  one->mirror->Run(simulation.now);
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(30));
  EXPECT_EQ(one->mirror->GetState().held, 30u);
}

// A neighbour deletes key by key, each by a transaction of its own.
TEST_F(SharedGroupsLimits, HoldsLossesThatFollowEachOther) {
  const auto one = StartDevice("one", Both());
  for (int i = 0; i < 20; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  for (int i = 0; i < 20; ++i) {
    broker.Put("fleet/Net/" + std::to_string(i), std::nullopt);
    for (int step = 0; step < 40; ++step) simulation.Step();  // two seconds
  }
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(10));
  EXPECT_EQ(one->mirror->GetState().held, 10u);

  // Neither time nor another look at them accepts what is held.
  simulation.Step(2 * one->limits.heldWindow);
  one->mirror->CompareAgain();
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(one->store.Read({"Net/*"}).GetGroups(), SizeIs(10));
  one->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(one->store.Read({"Net/*"}).IsEmpty());
}

TEST_F(SharedGroupsLimits, HoldsLossesThatHappenWhileGroupsAreSent) {
  const auto one = StartDevice("one", Both());
  for (int i = 0; i < 30; ++i) one->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  for (int i = 0; i < 30; ++i) one->store.Set("Net/" + std::to_string(i), "k", "2");
  one->store.beforeRead = [&one] {
    for (int i = 0; i < 30; ++i) one->store.Delete("Net/" + std::to_string(i));
  };
  for (int i = 0; i < 100; ++i) simulation.Step();
  EXPECT_THAT(broker.GetAll(), SizeIs(30));
  EXPECT_EQ(one->mirror->GetState().held, 30u);
  one->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(broker.GetAll(), SizeIs(0));
}

}  // namespace
