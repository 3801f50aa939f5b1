#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/programs/bridge/core/MirroredDevice.h"

// What becomes of what is published when link, broker, disk or process fail.
namespace {

using tavix::bridge::Keys;
using tavix::bridge::Limits;
using tavix::bridge::MemoryBroker;
using tavix::test::Milliseconds;
using tavix::test::Quick;
using tavix::test::Ruled;
using testing::HasSubstr;
using testing::StartsWith;

using DeviceMirrorFaults = tavix::test::MirroredDeviceTest;

TEST_F(DeviceMirrorFaults, RepairsWhatTheBrokerLostOrKept) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  device->store.Set("State/B", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  MemoryBroker::Store backup = broker.GetAll();
  device->store.Set("State/A", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  const std::string now = At("cam/reported/State/A");
  backup.erase("fleet/cam/reported/State/B");
  backup["fleet/cam/reported/State/Old"] = {"fleet/cam/reported/State/Old", "{}", 0};
  broker.RestartWith(backup);
  for (int i = 0; i < 20; ++i) simulation.Step();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/reported/State/A"), now);
  EXPECT_EQ(At("cam/reported/State/B"), R"({"epoch":"e1","format":1,"values":{"k":"1"},"version":1})");
  EXPECT_EQ(At("cam/reported/State/Old"), "");
}

TEST_F(DeviceMirrorFaults, SendsNothingAfterARestart) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->Kill();
  for (int i = 0; i < 10; ++i) simulation.Step();
  const size_t puts = broker.GetPutCount();
  const size_t amends = device->store.amends;
  device->Start();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(broker.GetPutCount(), puts + 1);  // the status
  EXPECT_EQ(device->store.amends, amends);
}

TEST_F(DeviceMirrorFaults, SendsEverythingAgainWhenItsStateIsLost) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  device->store.Set("State/B", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->Kill();
  device->state.Lose();
  device->store.Delete("State/B");
  device->Start();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/reported/State/A"), R"({"epoch":"e1","format":1,"values":{"k":"1"},"version":1})");
  EXPECT_EQ(At("cam/reported/State/B"), "");

  // And when nothing is left to be reported, the index is the own one all the same.
  device->Kill();
  device->state.Lose();
  device->store.Delete("State/A");
  device->Start();
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_EQ(At("cam/reported/State/A"), "");
  const std::string index = At("cam/index");
  const size_t puts = broker.GetPutCount();
  broker.Restart();
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(At("cam/index"), index);
  EXPECT_EQ(broker.GetPutCount(), puts + 1);  // the status
}

TEST_F(DeviceMirrorFaults, ReportsAGroupThatComesBackBeforeItIsCleared) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->Kill();
  device->state.Lose();
  device->store.Delete("State/A");
  device->Start();
  device->store.Set("State/A", "k", "2");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/reported/State/A"), HasSubstr(R"("values":{"k":"2"})"));
}

TEST_F(DeviceMirrorFaults, SendsAResultAgainThatNobodyConfirmed) {
  const auto device = StartDevice(Ruled());
  device->store.Set("Net/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Stall("camera");
  device->mirror->OnLocalReady();
  broker.Resume("camera");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  simulation.Step();
  broker.Stall("camera");
  simulation.Step();
  broker.Restart();  // what the link held is gone
  for (int i = 0; i < 50; ++i) simulation.Step();
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"state":"applied","version":1})");
}

TEST_F(DeviceMirrorFaults, SendsAgainWhatTheBrokerRefused) {
  const auto device = StartDevice(Ruled());
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RefusePuts(1);
  device->store.Set("State/A", "k", "1");
  for (int i = 0; i < 100; ++i) simulation.Step();
  EXPECT_EQ(At("cam/reported/State/A"), "");
  EXPECT_EQ(At("cam/index"), "");  // it would claim that the report stands there
  EXPECT_EQ(device->mirror->GetState().left, 1u);
  simulation.Step(Milliseconds(60'000));
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/reported/State/A"), HasSubstr(R"("version":1)"));
  EXPECT_THAT(At("cam/index"), StartsWith(R"({"epoch":"e1")"));
}

TEST_F(DeviceMirrorFaults, IsInSyncOnceARefusedResultIsNotNeededAnyMore) {
  const auto device = StartDevice(Ruled());
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.RefusePuts(1);
  broker.Put("fleet/cam/desired/d", "no document");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->mirror->GetState().left, 2u);  // the document, and its result
  broker.Put("fleet/cam/desired/d", std::nullopt);
  EXPECT_TRUE(simulation.RunUntilInSync(100));
}

TEST_F(DeviceMirrorFaults, GoesOnOnceTheDiskHasRoomAgain) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->state.isFull = true;
  device->store.Set("State/A", "k", "2");
  Publish("cam/desired/d", 1, {{"Net/A", {{"k", "1"}}}});
  for (int i = 0; i < 1000; ++i) simulation.Step();
  EXPECT_TRUE(device->store.Get("Net/A").empty());  // nothing is applied that could not be kept
  EXPECT_THAT(At("cam/status"), HasSubstr(R"("state":"state-failed")"));
  EXPECT_EQ(std::count_if(device->log.begin(), device->log.end(),
                          [](const std::string& line) { return line.find("disk is full") != std::string::npos; }),
            1);

  device->state.isFull = false;
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/reported/State/A"), HasSubstr(R"("values":{"k":"2"})"));
  EXPECT_EQ(device->store.Get("Net/A"), (Keys{{"k", "1"}}));
  EXPECT_EQ(At("cam/result/d"), R"({"keys":{},"state":"applied","version":1})");
  EXPECT_THAT(At("cam/status"), HasSubstr(R"("state":"mirroring")"));
}

TEST_F(DeviceMirrorFaults, WaitsWhileNothingHappens) {
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  ASSERT_TRUE(simulation.RunUntilInSync());
  for (int i = 0; i < 100; ++i) {
    simulation.Step(Milliseconds(0));  // replies come
    const auto next = device->mirror->GetNext(simulation.now);
    ASSERT_TRUE(next);
    ASSERT_GT(*next, simulation.now);
    simulation.Step(*next - simulation.now);
  }
  EXPECT_GT(simulation.now, Milliseconds(90 * 60'000));
}

TEST_F(DeviceMirrorFaults, WaitsWhileTheLinkIsStalled) {
  const auto device = StartDevice(Ruled());
  ASSERT_TRUE(simulation.RunUntilInSync());
  broker.Stall("camera");
  for (int i = 0; i < 100; ++i) device->store.Set("State/" + std::to_string(i), "k", "1");
  for (int i = 0; i < 2000; ++i) simulation.Step();
  const size_t reads = device->store.reads;
  for (int i = 0; i < 2000; ++i) simulation.Step();
  EXPECT_EQ(device->store.reads, reads);
  broker.Resume("camera");
  ASSERT_TRUE(simulation.RunUntilInSync());
}

TEST_F(DeviceMirrorFaults, ReadsNothingForAGroupThatIsLeftOut) {
  Limits limits = Quick();
  limits.maxGroups = 2;
  const auto device = StartDevice(Ruled(), limits);
  for (int i = 0; i < 3; ++i) device->store.Set("State/" + std::to_string(i), "k", "1");
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  EXPECT_EQ(device->report->counters.leftOut, 1u);
  const size_t reads = device->store.reads;
  for (int i = 0; i < 20; ++i) {
    device->store.Set("State/2", "k", std::to_string(i));
    simulation.Step();
  }
  EXPECT_EQ(device->store.reads, reads);
  device->store.Delete("State/0");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/reported/State/2"), HasSubstr(R"("k":"19")"));
}

TEST_F(DeviceMirrorFaults, GivesTheBytesThatAGroupLosesToAnotherOne) {
  Limits limits = Quick();
  limits.maxPendingBytes = 1000;
  const auto device = StartDevice(Ruled(), limits);
  device->store.Set("State/A", "k", std::string(900, 'a'));
  ASSERT_TRUE(simulation.RunUntilInSync());
  device->store.Set("State/B", "k", std::string(500, 'b'));
  ASSERT_FALSE(simulation.RunUntilInSync(100));
  device->store.Set("State/A", "k", "a");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/reported/State/B"), HasSubstr("bbb"));
}

TEST_F(DeviceMirrorFaults, GoesOnWithoutTheMark) {
  broker.LoseSynced(2);
  const auto device = StartDevice(Ruled());
  device->store.Set("State/A", "k", "1");
  for (int i = 0; i < 1000; ++i) simulation.Step();
  EXPECT_THAT(At("cam/reported/State/A"), HasSubstr(R"("k":"1")"));
  EXPECT_EQ(device->report->GetLastError(), "");

  broker.LoseSynced(1000);
  broker.Restart();
  device->store.Set("State/A", "k", "2");
  for (int i = 0; i < 2000; ++i) simulation.Step();
  EXPECT_THAT(At("cam/reported/State/A"), HasSubstr(R"("k":"2")"));
  EXPECT_THAT(device->report->GetLastError(), StartsWith("The broker does not show when it has sent everything"));
}

TEST_F(DeviceMirrorFaults, LeavesItsLastWillWhenTheLinkBreaks) {
  const auto device = StartDevice(Ruled());
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(At("cam/status"), HasSubstr(R"("online":true)"));
  broker.Cut("camera");
  EXPECT_EQ(At("cam/status"), R"({"format":1,"online":false})");
  broker.Heal("camera");
  for (int i = 0; i < 20; ++i) simulation.Step();
  EXPECT_THAT(At("cam/status"), HasSubstr(R"("online":true)"));
}

}  // namespace
