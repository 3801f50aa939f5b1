#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/bridge/core/SharedDevices.h"

// Keys whose values stay with one of the devices.
namespace {

using tavix::bridge::Direction;
using tavix::bridge::Keys;
using tavix::bridge::Rules;
using tavix::bridge::SharedGroups;
using tavix::test::SimulatedDevice;

using SharedGroupsMasks = tavix::test::SharedDevicesTest;

TEST_F(SharedGroupsMasks, KeepsMaskedValuesAtHome) {
  const auto one = StartDevice("one", Both());
  one->store.Set("Net/A", "secret", "pass");
  one->store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, R"({"format":1,"keys":{"k":"1","secret":{"masked":true}}})");
  broker.Put("fleet/Net/A", R"({"format":1,"keys":{"k":"2","secret":"theirs"}})");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(one->store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "pass"}}));
  EXPECT_EQ(one->report->counters.refused, 1u);

  // What others keep there stays, as it is not this device's.
  one->store.Set("Net/A", "k", "3");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, R"({"format":1,"keys":{"k":"3","secret":"theirs"}})");
  EXPECT_EQ(one->report->counters.refused, 1u);
  one->Kill();
  one->Start();
  one->store.Set("Net/A", "k", "4");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/A")->bytes, R"({"format":1,"keys":{"k":"4","secret":"theirs"}})");
}

// Two devices share a group, and one of them begins to mask a key of it.
TEST_F(SharedGroupsMasks, TakesNoValueFromOthersByMaskingIt) {
  const auto open = StartDevice("open", Open());
  open->store.Set("Net/A", "k", "1");
  open->store.Set("Net/A", "secret", "open's");
  ASSERT_TRUE(simulation.RunUntilInSync());
  const auto masking = StartDevice("masking", Both());
  ASSERT_TRUE(simulation.RunUntilInSync());
  masking->store.Set("Net/A", "secret", "masking's");
  masking->store.Set("Net/A", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(open->store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "open's"}}));
  EXPECT_EQ(masking->store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "masking's"}}));

  // The same the other way round: the mark hides the key from the device that does not mask it.
  masking->store.Set("Net/B", "k", "1");
  masking->store.Set("Net/B", "secret", "masking's");
  ASSERT_TRUE(simulation.RunUntilInSync());
  open->store.Set("Net/B", "secret", "open's");
  open->store.Set("Net/B", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.Get("fleet/Net/B")->bytes, R"({"format":1,"keys":{"k":"2","secret":{"masked":true}}})");
  EXPECT_EQ(open->store.Get("Net/B"), (Keys{{"k", "2"}, {"secret", "open's"}}));
  EXPECT_EQ(masking->store.Get("Net/B"), (Keys{{"k", "2"}, {"secret", "masking's"}}));
}

// A mask that is configured behind the agreement is no removal.
TEST_F(SharedGroupsMasks, KeepsWhatStandsThereWhenAMaskIsConfigured) {
  const auto other = StartDevice("other", Open());
  bool isMasking = false;
  SimulatedDevice one(broker, "one", Both(), Quick(), [&isMasking](SimulatedDevice& device) {
    static const Rules open = Open();
    return std::make_unique<SharedGroups>(isMasking ? device.rules : open, device.limits, "fleet", *device.engine,
                                          device.store, device.state, *device.report, kSeed);
  });
  one.Start();
  simulation.Add(one);
  one.store.Set("Net/A", "secret", "1");
  one.store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  one.Kill();
  isMasking = true;
  one.Start();
  one.store.Set("Net/A", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(other->store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "1"}}));
  EXPECT_EQ(one.store.Get("Net/A"), (Keys{{"k", "2"}, {"secret", "1"}}));
}

}  // namespace
