#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/bridge/core/MirroredDevice.h"

// How documents are applied when not everything goes well.
namespace {

using tavix::bridge::Conflict;
using tavix::bridge::DeviceIdentity;
using tavix::bridge::DeviceMirror;
using tavix::bridge::Direction;
using tavix::bridge::First;
using tavix::bridge::Keys;
using tavix::bridge::Limits;
using tavix::bridge::Rules;
using tavix::bridge::Side;
using tavix::test::Milliseconds;
using tavix::test::Quick;
using tavix::test::Ruled;
using tavix::test::SimulatedDevice;
using tavix::test::Simulation;
using testing::HasSubstr;

using DeviceMirrorDocuments = tavix::test::MirroredDeviceTest;

TEST_F(DeviceMirrorDocuments, AsksForListedDocumentsThatHaveNotCome) {
  const auto device = StartDevice(Ruled());
  broker.Put("fleet/cam/desired-index", R"({"format":1,"documents":{"d":1}})");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.LoseItems(1);
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(device->store.Get("Net/A").empty());
  simulation.Step(Milliseconds(30'000));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
}

TEST_F(DeviceMirrorDocuments, HoldsADocumentThatTakesValuesFromMostGroups) {
  const auto device = StartDevice(Ruled());
  std::map<std::string, tavix::bridge::DesiredKeys> groups;
  for (int i = 0; i < 12; ++i) {
    device->store.Set("Net/" + std::to_string(i), "k", "1");
    groups["Net/" + std::to_string(i)] = {{"k", std::nullopt}};
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  Publish("cam/desired/d", 1, groups);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(12));
  device->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(device->store.Read({"Net/*"}).IsEmpty());
}

// The result of a document says what the device does, not what was tried.
TEST_F(DeviceMirrorDocuments, RefusesADocumentThatTheStoreDoesNotTake) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/before", 1, {{"Net/B", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.isRefusing = true;
  const size_t amends = device->store.amends;
  const size_t commits = device->state.commits;
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  simulation.Step();
  simulation.Step();
  EXPECT_EQ(At("cam/result/d"), "");
  for (int i = 0; i < 1200; ++i) simulation.Step();  // a minute
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"reason":"the store refuses it","state":"refused","version":1})");
  EXPECT_EQ(At("cam/result/before"), R"({"keys":{},"state":"applied","version":1})");
  EXPECT_EQ(device->report->counters.refused, 1u);
  EXPECT_EQ(device->mirror->GetState().left, 1u);
  EXPECT_LE(device->store.amends - amends, 40u);
  EXPECT_LE(device->state.commits - commits, 100u);

  // Others are applied meanwhile.
  device->store.isRefusing = false;
  Publish("cam/desired/other", 1, {{"Net/C", {{"k", "1"}}}});
  simulation.Step();
  simulation.Step();
  EXPECT_EQ(device->store.Get("Net/C"), (Keys{{"k", "1"}}));
  for (int i = 0; i < 1300; ++i) simulation.Step();
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"state":"applied","version":1})");
  EXPECT_TRUE(device->mirror->GetState().isInSync);
}

TEST_F(DeviceMirrorDocuments, AppliesADocumentWholeOrNotAtAll) {
  const auto device = StartDevice(Ruled());
  device->store.isRefusing = true;
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}, {"Net/B", {{"k", "1"}}}});
  for (int i = 0; i < 100; ++i) simulation.Step();
  device->store.isRefusing = false;
  device->store.Set("Net/A", "k", "mine");
  simulation.Step();
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "mine"}}));
  for (int i = 0; i < 1300; ++i) simulation.Step();
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
  EXPECT_EQ(device->store.Get("Net/B"), (Keys{{"k", "1"}}));
}

TEST_F(DeviceMirrorDocuments, CountsAConflictOnceHoweverOftenTheStepFails) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.isRefusing = true;
  device->store.Set("Net/A", "k", "mine");
  for (int i = 0; i < 100; ++i) simulation.Step();
  device->store.isRefusing = false;
  for (int i = 0; i < 1300; ++i) simulation.Step();
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
  EXPECT_EQ(device->report->counters.overridden, 1u);
}

TEST_F(DeviceMirrorDocuments, CountsALocalChangeThatMeetsANewVersion) {
  const auto device = StartDevice(Ruled());
  device->store.Set("Net/A", "first", "mine");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}, {"first", "theirs"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->report->counters.overridden, 1u);  // of the first application
  broker.Cut("camera");
  simulation.Step();
  device->Kill();
  device->store.Set("Net/A", "k", "mine");
  Publish("cam/desired/d", 2, {{"Net/A", {{"k", "2"}, {"first", "theirs"}}}});
  broker.Heal("camera");
  device->Start();
  device->mirror->OnLocalLost();  // documents come first
  for (int i = 0; i < 20; ++i) simulation.Step();
  device->mirror->OnLocalReady();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "2"}, {"first", "theirs"}}));
  EXPECT_EQ(device->report->counters.overridden, 1u);
  EXPECT_THAT(device->report->GetConflicts(), testing::ElementsAre(Conflict{"Net/A", "k", "2", "mine", Side::kDevice}));
}

TEST_F(DeviceMirrorDocuments, CountsNoConflictWithDefaults) {
  const auto device = StartDevice(Ruled(), Quick(), "[Net/A]\nk=default\nl=default\n");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}, {"l", std::nullopt}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}, {"l", "default"}}));
  device->store.SetDefaults("[Net/A]\nk=default\nl=of another firmware\n");
  device->mirror->OnLocalReady();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}, {"l", "of another firmware"}}));
  EXPECT_EQ(device->report->counters.overridden, 0u);
  EXPECT_EQ(device->store.amends, 1u);
}

// The process ends between the step and its record, and others write before it runs again.
TEST_F(DeviceMirrorDocuments, KnowsAStepThatWasMadeBehindAKill) {
  for (const Side winner : {Side::kDevice, Side::kCentre}) {
    const std::string group = winner == Side::kDevice ? "Net/D" : "Net/C";
    const std::string document = winner == Side::kDevice ? "d" : "c";
    const auto device = StartDevice(Ruled(Direction::kBoth, winner));
    Simulation life(broker);
    life.Add(*device);
    ASSERT_TRUE(life.RunUntilInSync());
    device->store.isKillingAfterAmend = true;
    Publish("cam/desired/" + document, 1, {{group, {{"k", "1"}}}});
    while (device->IsRunning()) life.Step();
    EXPECT_EQ(device->store.Get(group), (Keys{{"k", "1"}}));
    device->store.Set(group, "k", "mine");
    device->Start();
    ASSERT_TRUE(life.RunUntilInSync());
    EXPECT_EQ(device->store.Get(group), (Keys{{"k", winner == Side::kDevice ? "mine" : "1"}}));
    EXPECT_EQ(device->report->counters.overridden, 1u);
    device->Kill();
  }
}

TEST_F(DeviceMirrorDocuments, ReleasesADocumentThatIsNoLongerListed) {
  const auto device = StartDevice(Ruled());
  broker.Put("fleet/cam/desired-index", R"({"format":1,"documents":{"a":1,"b":1}})");
  Publish("cam/desired/a", 1, {{"Net/A", {{"k", "1"}}}});
  Publish("cam/desired/b", 1, {{"Net/B", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Cut("camera");
  for (const char* name : {"a", "b"}) broker.Put(std::string("fleet/cam/desired/") + name, std::nullopt);
  broker.Put("fleet/cam/desired-index", R"({"format":1,"documents":{"b":1}})");
  broker.Heal("camera");
  for (int i = 0; i < 20; ++i) simulation.Step();
  device->store.Set("Net/A", "k", "mine");
  device->store.Set("Net/B", "k", "mine");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "mine"}}));
  EXPECT_EQ(device->store.Get("Net/B"), (Keys{{"k", "1"}}));  // the broker may have lost it
  EXPECT_EQ(At("cam/result/a"), "");
}

TEST_F(DeviceMirrorDocuments, ReleasesTheDocumentsOfAFormerClass) {
  auto deviceClass = std::make_shared<std::string>("outdoor");
  SimulatedDevice device(broker, "camera", Ruled(), Quick(), [deviceClass](SimulatedDevice& self) {
    const DeviceIdentity identity{"fleet", "cam", *deviceClass, "1.0", "e1"};
    return std::make_unique<DeviceMirror>(self.rules, self.limits, identity, *self.engine, self.store, self.state,
                                          *self.report);
  });
  device.Start();
  simulation.Add(device);
  Publish("class/outdoor/desired/kind", 1, {{"Net/A", {{"k", "class"}}}});
  Publish("cam/desired/own", 1, {{"Net/B", {{"k", "device"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device.Kill();
  *deviceClass = "indoor";
  device.Start();
  device.store.Set("Net/A", "k", "mine");
  device.store.Set("Net/B", "k", "mine");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device.store.Get("Net/A"), (Keys{{"k", "mine"}}));
  EXPECT_EQ(device.store.Get("Net/B"), (Keys{{"k", "device"}}));
}

TEST_F(DeviceMirrorDocuments, HoldsNothingWhereNoValueOfTheUsersIsLost) {
  std::string defaults;
  std::map<std::string, tavix::bridge::DesiredKeys> groups;
  for (int i = 0; i < 12; ++i) {
    defaults += "[Net/" + std::to_string(i) + "]\nk=default\n";
    groups["Net/" + std::to_string(i)] = {{"k", std::nullopt}};
  }
  const auto device = StartDevice(Ruled(), Quick(), defaults);
  Publish("cam/desired/d", 1, groups);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"state":"applied","version":1})");
}

TEST_F(DeviceMirrorDocuments, ForgetsLossesThatAreHeldWithTheirDocument) {
  const auto device = StartDevice(Ruled());
  std::map<std::string, tavix::bridge::DesiredKeys> groups;
  for (int i = 0; i < 12; ++i) {
    device->store.Set("Net/" + std::to_string(i), "k", "1");
    groups["Net/" + std::to_string(i)] = {{"k", std::nullopt}};
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  Publish("cam/desired/d", 1, groups);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  // A change in one of its groups is no reason to apply that group alone.
  device->store.Set("Net/0", "other", "1");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(12));
  EXPECT_EQ(device->store.Get("Net/0"), (Keys{{"k", "1"}, {"other", "1"}}));
  EXPECT_EQ(At("cam/result/d"), "");

  broker.Put("fleet/cam/desired/d", std::nullopt);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->mirror->GetState().held, 0u);
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(12));

  // What was accepted once is no licence for another document.
  Publish("cam/desired/e", 1, groups);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  device->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  for (int i = 0; i < 12; ++i) device->store.Set("Net/" + std::to_string(i), "k", "2");
  Publish("cam/desired/e", 2, groups);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->mirror->GetState().held, 12u);
}

TEST_F(DeviceMirrorDocuments, RefusesMoreDocumentsThanItsLimitsAllow) {
  Limits limits = Quick();
  limits.maxGroups = 3;
  const auto device = StartDevice(Ruled(), limits);
  for (int i = 0; i < 4; ++i) Publish("cam/desired/" + std::to_string(i), 1, {{"Net/A", {{std::to_string(i), "1"}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(device->store.Get("Net/A"), testing::SizeIs(3));
  EXPECT_THAT(At("cam/result/3"), HasSubstr("the device has as many documents"));
  broker.Put("fleet/cam/desired/0", std::nullopt);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(device->store.Get("Net/A"), testing::SizeIs(4));
  EXPECT_EQ(At("cam/result/3"), R"({"keys":{},"state":"applied","version":1})");
}

TEST_F(DeviceMirrorDocuments, AsksForRefusedDocumentsOnceThereIsRoomForTheirBytes) {
  Limits limits = Quick();
  limits.maxPendingBytes = 1500;
  const auto device = StartDevice(Ruled(), limits);
  Publish("cam/desired/a", 1, {{"Net/A", {{"k", std::string(1000, 'a')}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  Publish("cam/desired/b", 1, {{"Net/B", {{"k", std::string(1000, 'b')}}}});
  Publish("all/desired/c", 1, {{"Net/C", {{"k", std::string(800, 'c')}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->report->counters.refused, 2u);
  Publish("cam/desired/a", 2, {{"Net/A", {{"k", std::string(500, 'a')}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));  // there is room for one of them
  EXPECT_THAT(At("cam/result/b"), HasSubstr("refused"));
  EXPECT_EQ(device->store.Get("Net/C"), (Keys{{"k", std::string(800, 'c')}}));
  EXPECT_EQ(device->report->counters.refused, 2u);
  broker.Put("fleet/all/desired/c", std::nullopt);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  device->store.Delete("Net/C");  // groups have no more bytes than documents
  Publish("cam/desired/a", 3, {{"Net/A", {{"k", std::string(300, 'a')}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/B"), (Keys{{"k", std::string(1000, 'b')}}));
}

// A series of documents that take few values each.
TEST_F(DeviceMirrorDocuments, HoldsLossesThatManyDocumentsMakeUp) {
  const auto device = StartDevice(Ruled());
  for (int i = 0; i < 20; ++i) device->store.Set("Net/" + std::to_string(i), "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  for (int i = 0; i < 20; i += 2) {
    Publish(
        "cam/desired/" + std::to_string(i), 1,
        {{"Net/" + std::to_string(i), {{"k", std::nullopt}}}, {"Net/" + std::to_string(i + 1), {{"k", std::nullopt}}}});
    for (int step = 0; step < 20; ++step) simulation.Step();
  }
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(10));
  EXPECT_EQ(device->mirror->GetState().held, 10u);

  // Neither time nor another look at them accepts what is held.
  simulation.Step(2 * device->limits.heldWindow);
  device->mirror->OnLocalReady();
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_THAT(device->store.Read({"Net/*"}).GetGroups(), testing::SizeIs(10));
  device->mirror->AcceptLosses();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_TRUE(device->store.Read({"Net/*"}).IsEmpty());
}

TEST_F(DeviceMirrorDocuments, HoldsNothingMoreOnceTheDeviceMadeTheLosses) {
  const auto device = StartDevice(Ruled());
  std::map<std::string, tavix::bridge::DesiredKeys> groups;
  for (int i = 0; i < 12; ++i) {
    device->store.Set("Net/" + std::to_string(i), "k", "1");
    groups["Net/" + std::to_string(i)] = {{"k", std::nullopt}};
  }
  ASSERT_TRUE(simulation.RunUntilInSync());
  Publish("cam/desired/d", 1, groups);
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->mirror->GetState().held, 12u);
  for (int i = 0; i < 12; ++i) device->store.Delete("Net/" + std::to_string(i));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"state":"applied","version":1})");
}

TEST_F(DeviceMirrorDocuments, AsksForAListedVersionThatHasNotCome) {
  const auto device = StartDevice(Ruled());
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  simulation.Step(Milliseconds(30'000));
  broker.LoseItems(1);
  Publish("cam/desired/d", 2, {{"Net/A", {{"k", "2"}}}});
  broker.Put("fleet/cam/desired-index", R"({"format":1,"documents":{"d":2}})");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
  simulation.Step(Milliseconds(30'000));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "2"}}));
}

TEST_F(DeviceMirrorDocuments, DoesNotApplyWhatItsConfigurationNoLongerAllows) {
  auto direction = std::make_shared<Direction>(Direction::kDown);
  SimulatedDevice device(broker, "camera", Ruled(), Quick(), [direction](SimulatedDevice& self) {
    static const Rules up = Ruled(Direction::kUp);
    return std::make_unique<DeviceMirror>(*direction == Direction::kUp ? up : self.rules, self.limits,
                                          DeviceIdentity{"fleet", "cam", "", "1.0", "e1"}, *self.engine, self.store,
                                          self.state, *self.report);
  });
  device.Start();
  simulation.Add(device);
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device.Kill();
  *direction = Direction::kUp;
  device.Start();
  device.store.Set("Net/A", "k", "mine");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device.store.Get("Net/A"), (Keys{{"k", "mine"}}));
  EXPECT_THAT(At("cam/result/d"), HasSubstr(R"("[Net/A]k":"nothing is taken from outside")"));
}

TEST_F(DeviceMirrorDocuments, RemembersWhatIsUndecidedInOtherGroups) {
  const auto device = StartDevice(Ruled(Direction::kBoth, Side::kCentre, First::kRefuse));
  device->store.Set("Net/A", "k", "mine");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}, {"Net/B", {{"k", "1"}}}});
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  device->store.Set("Net/B", "k", "2");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->mirror->GetState().undecided, 1u);
  EXPECT_THAT(At("cam/result/d"), HasSubstr("a person has to decide"));
  device->mirror->Decide(Side::kCentre);
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
}

}  // namespace
