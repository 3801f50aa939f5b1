#pragma once

#include <gtest/gtest.h>

#include "programs/bridge/core/DeviceMirror.h"
#include "tests/programs/bridge/core/SimulatedDevice.h"

namespace tavix::test {

// Limits under which a test does not wait.
inline bridge::Limits Quick() {
  bridge::Limits limits;
  limits.deviceRate = 1000;
  limits.spread = Milliseconds(0);
  limits.reconnectMin = limits.reconnectMax = Milliseconds(200);
  return limits;
}

// Groups of state that are seen, and others that are changed from outside.
inline bridge::Rules Ruled(bridge::Direction direction = bridge::Direction::kDown,
                           bridge::Side winner = bridge::Side::kCentre, bridge::First first = bridge::First::kCentre) {
  return bridge::Rules({{"up", "State/*", bridge::Direction::kUp}, {"net", "Net/*", direction, winner, first}},
                       {"Private/*"}, {"[*]secret"});
}

// A device, a broker where each topic has one writer, and a centre.
class MirroredDeviceTest : public testing::Test {
 protected:
  std::unique_ptr<SimulatedDevice> StartDevice(const bridge::Rules& rules, const bridge::Limits& limits = Quick(),
                                               const std::string& defaults = "") {
    auto device = std::make_unique<SimulatedDevice>(
        broker, "camera", rules, limits,
        [](SimulatedDevice& self) {
          const bridge::DeviceIdentity identity{"fleet", "cam", "outdoor", "1.0", "e1"};
          return std::make_unique<bridge::DeviceMirror>(self.rules, self.limits, identity, *self.engine, self.store,
                                                        self.state, *self.report);
        },
        defaults);
    device->Start();
    simulation.Add(*device);
    return device;
  }

  void Publish(const std::string& topic, uint64_t version, const std::map<std::string, bridge::DesiredKeys>& groups,
               const std::string& epoch = "a") {
    broker.Put("fleet/" + topic, bridge::ComposeDesired(bridge::DesiredDocument{epoch, version, groups}));
  }

  std::string At(const std::string& topic) {
    const auto item = broker.Get("fleet/" + topic);
    return item && item->bytes ? *item->bytes : "";
  }

  bridge::MemoryBroker broker{bridge::Capabilities{false, false}};
  Simulation simulation{broker};
};

}  // namespace tavix::test
