#include "programs/bridge/core/DeviceMirror.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/bridge/core/MirroredDevice.h"

// What a device reports, and what becomes of documents.
namespace {

using tavix::bridge::Conflict;
using tavix::bridge::Direction;
using tavix::bridge::Keys;
using tavix::bridge::Limits;
using tavix::bridge::Side;
using tavix::test::Milliseconds;
using tavix::test::Quick;
using tavix::test::Ruled;
using testing::HasSubstr;
using testing::StartsWith;

using DeviceMirrorTest = tavix::test::MirroredDeviceTest;

TEST_F(DeviceMirrorTest, ReportsAGroupByOneMessageAndTheIndexBehindIt) {
  const auto device = StartDevice(Ruled());
  ASSERT_TRUE(simulation.RunUntilInSync());
  const size_t before = broker.GetPutCount();
  device->store.Set("State/Lens", "zoom", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/reported/State/Lens"), R"({"epoch":"e1","format":1,"values":{"zoom":"2"},"version":1})");
  EXPECT_THAT(At("cam/index"), StartsWith(R"({"epoch":"e1","format":1,"hash":")"));
  EXPECT_EQ(broker.GetPutCount(), before + 2);
  device->store.Set("State/Lens", "zoom", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.GetPutCount(), before + 2);
}

TEST_F(DeviceMirrorTest, ReportsThatAGroupIsGone) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/Lens", "zoom", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.Unset("State/Lens", "zoom");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/reported/State/Lens"), R"({"epoch":"e1","format":1,"gone":true,"version":2})");
}

TEST_F(DeviceMirrorTest, AppliesADocumentAndReportsTheResult) {
  const auto device = StartDevice(Ruled(), Quick(), "[Net/Eth0]\ngateway=g\n");
  device->store.Set("Net/Eth0", "gateway", "mine");
  device->store.Set("Net/Eth0", "own", "stays");
  Publish("cam/desired/network", 412, {{"Net/Eth0", {{"mtu", "1500"}, {"gateway", std::nullopt}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/Eth0"), (Keys{{"mtu", "1500"}, {"gateway", "g"}, {"own", "stays"}}));
  EXPECT_EQ(At("cam/result/network"), R"({"keys":{},"state":"applied","version":412})");
  EXPECT_EQ(device->store.amends, 1u);
}

TEST_F(DeviceMirrorTest, PutsBackWhatTheDeviceChanges) {
  const auto device = StartDevice(Ruled(Direction::kBoth));
  Publish("cam/desired/network", 1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.Set("Net/Eth0", "mtu", "9000");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/Eth0"), (Keys{{"mtu", "1500"}}));
  EXPECT_THAT(device->report->GetConflicts(),
              testing::ElementsAre(Conflict{"Net/Eth0", "mtu", "1500", "9000", Side::kDevice}));
}

TEST_F(DeviceMirrorTest, KeepsTheDevicesValueUntilTheNextVersionWhereItWins) {
  const auto device = StartDevice(Ruled(Direction::kBoth, Side::kDevice));
  Publish("cam/desired/network", 1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.Set("Net/Eth0", "mtu", "9000");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/Eth0"), (Keys{{"mtu", "9000"}}));
  EXPECT_EQ(At("cam/result/network"),
            R"({"keys":{"[Net/Eth0]mtu":"the device's value is kept"},"state":"overridden","version":1})");
  Publish("cam/desired/network", 2, {{"Net/Eth0", {{"mtu", "1500"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/Eth0"), (Keys{{"mtu", "1500"}}));
  EXPECT_EQ(device->report->counters.overridden, 1u);
}

TEST_F(DeviceMirrorTest, TakesDeviceOverClassOverAllByKey) {
  const auto device = StartDevice(Ruled());
  Publish("all/desired/base", 1, {{"Net/A", {{"a", "all"}, {"b", "all"}, {"c", "all"}}}});
  Publish("class/outdoor/desired/kind", 1, {{"Net/A", {{"b", "class"}, {"c", "class"}}}});
  Publish("cam/desired/own", 1, {{"Net/A", {{"c", "device"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"a", "all"}, {"b", "class"}, {"c", "device"}}));
}

TEST_F(DeviceMirrorTest, TakesTheDocumentThatSortsFirstAndInformsTheOther) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/b", 1, {{"Net/A", {{"k", "b"}}}});
  Publish("cam/desired/a", 1, {{"Net/A", {{"k", "a"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "a"}}));
  EXPECT_EQ(At("cam/result/b"),
            R"({"keys":{"[Net/A]k":"the document 'a' names it, too"},"state":"applied","version":1})");
}

TEST_F(DeviceMirrorTest, LeavesTheValuesOfADocumentThatIsTakenAway) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/network", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Put("fleet/cam/desired/network", std::nullopt);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
  EXPECT_EQ(At("cam/result/network"), "");
  device->store.Set("Net/A", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "2"}}));
}

TEST_F(DeviceMirrorTest, IgnoresAVersionThatIsNotAboveTheLastOne) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/network", 5, {{"Net/A", {{"k", "5"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  Publish("cam/desired/network", 4, {{"Net/A", {{"k", "4"}}}});
  Publish("cam/desired/network", 5, {{"Net/A", {{"k", "other"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "5"}}));
  EXPECT_EQ(device->report->counters.stale, 2u);
  Publish("cam/desired/network", 1, {{"Net/A", {{"k", "1"}}}}, "another epoch");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
}

TEST_F(DeviceMirrorTest, RefusesADocumentWholeThatNamesWhatItMayNot) {
  const auto device = StartDevice(Ruled());
  const std::pair<std::string, std::string> cases[] = {{"TavixSettings/Log", "the group is never mirrored"},
                                                       {"Net/Secure", "the group is never mirrored"},
                                                       {"Private/A", "the group is never mirrored"},
                                                       {"Other", "the group is not mirrored"},
                                                       {"State/Lens", "nothing is taken from outside"}};
  uint64_t version = 0;
  for (const auto& [group, reason] : cases) {
    Publish("cam/desired/d", ++version, {{"Net/A", {{"k", "1"}}}, {group, {{"k", "1"}}}});
    ASSERT_FALSE(simulation.RunUntilInSync(100));
    EXPECT_EQ(At("cam/result/d"), R"({"keys":{"[)" + group + R"(]k":")" + reason +
                                      R"("},"state":"refused","version":)" + std::to_string(version) + "}");
  }
  Publish("cam/desired/d", 10, {{"Net/A", {{"secret", "1"}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(At("cam/result/d"), HasSubstr(R"("[Net/A]secret":"the value is masked")"));
  EXPECT_TRUE(device->store.Read({"*"}).IsEmpty());
}

TEST_F(DeviceMirrorTest, RefusesWhatIsNoDocumentAndGoesOnWithOthers) {
  Limits limits = Quick();
  limits.maxDocument = 200;
  const auto device = StartDevice(Ruled(), limits);
  const std::pair<std::string, std::string> cases[] = {
      {"text", "the document is not JSON"},
      {R"({"format":2,"epoch":"a","version":1,"groups":{}})", R"(\"format\": 1 is the only one)"},
      {R"({"format":1,"epoch":"a","version":1,"groups":{"Net/A":{"k":5}}})", "[Net/A]k: expected a string, null or"},
      {R"({"format":1,"epoch":"a","version":-1,"groups":{}})", R"(\"version\": expected a number)"},
      {R"({"format":1,"epoch":"a","version":1})", R"(\"groups\" is missing)"},
      {R"({"format":1,"epoch":"a","version":1,"version":2,"groups":{}})", "the name 'version' stands twice"},
      {std::string(201, ' '), "the document has 201 bytes; the limit is 200"}};
  for (const auto& [bytes, reason] : cases) {
    broker.Put("fleet/cam/desired/bad", bytes);
    ASSERT_FALSE(simulation.RunUntilInSync(100));
    EXPECT_THAT(At("cam/result/bad"), testing::AllOf(HasSubstr(reason), HasSubstr(R"("state":"refused")"))) << bytes;
  }
  broker.Put("fleet/cam/desired/a%00b", "x");
  Publish("cam/desired/good", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(At("cam/result/a%00b"), HasSubstr("the name holds a NUL"));
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
}

TEST_F(DeviceMirrorTest, ReportsRemovalsThatAnOlderDaemonCanNotDo) {
  const auto device = StartDevice(Ruled());
  device->store.canRemove = false;
  device->store.Set("Net/A", "k", "1");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", std::nullopt}, {"l", "2"}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}, {"l", "2"}}));
  EXPECT_EQ(At("cam/result/d"),
            R"({"keys":{"[Net/A]k":"the daemon is too old to remove a value"},"state":"unsupported","version":1})");
}

TEST_F(DeviceMirrorTest, SpreadsDocumentsForManyDevices) {
  Limits limits = Quick();
  limits.spread = Milliseconds(60'000);
  const auto device = StartDevice(Ruled(), limits);
  simulation.Step();
  Publish("all/desired/base", 1, {{"Net/A", {{"k", "1"}}}});
  simulation.Step();
  simulation.Step();
  EXPECT_TRUE(device->store.Get("Net/A").empty());
  simulation.Step(Milliseconds(60'000));
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
}

TEST_F(DeviceMirrorTest, TakesManyDocuments) {
  const auto device = StartDevice(Ruled());
  for (int i = 0; i < 2'000; ++i) {
    Publish("cam/desired/d" + std::to_string(i), 1, {{"Net/" + std::to_string(i), {{"k", "1"}}}});
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(2'000));
}

}  // namespace
