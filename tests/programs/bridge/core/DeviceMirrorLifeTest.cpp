#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/programs/bridge/core/MirroredDevice.h"
#include "tests/support/RunLength.h"
#include "tests/support/Seeds.h"

namespace {

using tavix::bridge::Capabilities;
using tavix::bridge::ComposeDesired;
using tavix::bridge::DesiredDocument;
using tavix::bridge::DeviceIdentity;
using tavix::bridge::DeviceMirror;
using tavix::bridge::MemoryBroker;
using tavix::test::Quick;
using tavix::test::Ruled;
using tavix::test::SimulatedDevice;
using tavix::test::Simulation;
using testing::HasSubstr;

// Random documents and local changes, with partitions, restarts and processes that end between any two steps.
TEST(DeviceMirrorLife, EndsAsDocumentsAndStoreHaveIt) {
  const auto [first, last] = tavix::test::ChooseSeeds(tavix::test::IsLongRun() ? 10'000 : 20);
  for (unsigned int seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    MemoryBroker own{Capabilities{false, false}};
    size_t epochs = 0;  // each state that begins anew has its own
    SimulatedDevice device(own, "camera", Ruled(), Quick(), [&epochs](SimulatedDevice& self) {
      const DeviceIdentity identity{"fleet", "cam", "", "1.0", "e" + std::to_string(++epochs)};
      return std::make_unique<DeviceMirror>(self.rules, self.limits, identity, *self.engine, self.store, self.state,
                                            *self.report);
    });
    Simulation life(own);
    life.Add(device);
    device.Start();
    std::mt19937 random(seed);
    uint64_t version = 0;
    std::map<std::string, tavix::bridge::DesiredKeys> wanted;
    for (int i = 0; i < 300; ++i) {
      const std::string number = std::to_string(random() % 4);
      const std::string value = "v" + std::to_string(i);
      switch (random() % 19) {
        case 0:
        case 1:
          device.store.Set("State/" + number, "k", value);
          break;
        case 2:
          device.store.Set("Net/" + number, "k" + std::to_string(random() % 3), value);
          break;
        case 3:
          device.store.Delete("State/" + number);
          break;
        case 4:
          wanted["Net/" + number]["k" + std::to_string(random() % 3)] = value;
          break;
        case 5:
          wanted["Net/" + number]["k" + std::to_string(random() % 3)] = std::nullopt;
          break;
        case 6:
          own.Cut("camera");
          break;
        case 7:
          own.Heal("camera");
          break;
        case 8:
          own.Stall("camera");
          break;
        case 9:
          own.Resume("camera");
          break;
        case 10:
          own.Restart();
          break;
        case 11:
          device.life.EndIn(random() % 12);
          break;
        case 12:
          own.BreakAfterNextPut("camera");
          break;
        case 13:
          if (!device.IsRunning()) device.Start();
          break;
        case 14:
          device.state.isFull = !device.state.isFull;
          break;
        case 15:
          device.store.isRefusing = !device.store.isRefusing;
          break;
        case 16:
          own.RefusePuts(random() % 3);
          break;
        case 17:
          if (device.IsRunning()) device.mirror->OnLocalLost();
          if (device.IsRunning()) device.mirror->OnLocalReady();
          break;
        case 18:
          if (!device.IsRunning() && random() % 4 == 0) device.state.Lose();
          break;
      }
      const std::string document = ComposeDesired(DesiredDocument{"a", version + 1, wanted});
      if (!wanted.empty() && random() % 3 == 0) own.Put("fleet/cam/desired/d", (++version, document));
      life.Step();
    }
    own.Put("fleet/cam/desired/d", ComposeDesired(DesiredDocument{"a", ++version, wanted}));
    own.RefusePuts(0);
    own.Heal("camera");
    own.Resume("camera");
    own.Restart();
    device.life = {};
    device.state.isFull = false;
    device.store.isRefusing = false;
    if (!device.IsRunning()) device.Start();
    ASSERT_TRUE(life.RunUntilInSync());
    EXPECT_EQ(own.Get("fleet/cam/result/d")->bytes,
              R"({"keys":{},"state":"applied","version":)" + std::to_string(version) + "}");
    for (const auto& [group, keys] : wanted) {
      for (const auto& [key, value] : keys) {
        EXPECT_EQ(tavix::bridge::FindValue(device.store.Get(group), key), value) << group << key;
      }
    }
    for (const auto& [group, keys] : device.store.Read({"Net/*", "State/*"})) {
      const std::string reported = own.Get("fleet/cam/reported/" + group)->bytes.value_or("");
      for (const auto& [key, value] : keys)
        EXPECT_THAT(reported, HasSubstr('"' + key + "\":\"" + value + '"')) << group;
    }
    const std::string prefix = "fleet/cam/reported/";
    for (const auto& [topic, item] : own.GetAll()) {
      const bool isReported = topic.compare(0, prefix.size(), prefix) == 0;
      if (!isReported || !device.store.Get(topic.substr(prefix.size())).empty()) continue;
      EXPECT_THAT(item.bytes.value_or(""), HasSubstr(R"("gone":true)")) << topic;
    }
    const size_t puts = own.GetPutCount();
    for (int i = 0; i < 100; ++i) life.Step();
    EXPECT_EQ(own.GetPutCount(), puts);
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace
