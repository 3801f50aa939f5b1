#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "programs/bridge/core/SharedGroups.h"
#include "programs/bridge/formats/SharedGroup.h"
#include "tests/programs/bridge/core/SimulatedDevice.h"

namespace tavix::test {

// Devices that share groups, and the store behind the engine between them.
class SharedDevices {
 public:
  static constexpr uint64_t kSeed = 17;

  // Limits under which a test does not wait.
  static bridge::Limits Quick() {
    bridge::Limits limits;
    limits.deviceRate = 1000;
    limits.maxConflicts = 100'000;
    limits.reconnectMin = limits.reconnectMax = Milliseconds(200);
    return limits;
  }

  static bridge::Rules Both(bridge::Side winner = bridge::Side::kCentre, bridge::First first = bridge::First::kCentre) {
    return bridge::Rules({{"shared", "Net/*", bridge::Direction::kBoth, winner, first}}, {}, {"[*]secret"});
  }

  // The same without a mask.
  static bridge::Rules Open() { return bridge::Rules({{"shared", "Net/*", bridge::Direction::kBoth}}, {}, {}); }

  std::unique_ptr<SimulatedDevice> MakeDevice(const std::string& name, const bridge::Rules& rules,
                                              const bridge::Limits& limits = Quick(),
                                              const std::string& defaults = "") {
    return std::make_unique<SimulatedDevice>(
        broker, name, rules, limits,
        [name](SimulatedDevice& device) {
          return std::make_unique<bridge::SharedGroups>(device.rules, device.limits, "fleet", *device.engine,
                                                        device.store, device.state, *device.report,
                                                        kSeed + name.size());
        },
        defaults);
  }

  std::unique_ptr<SimulatedDevice> StartDevice(const std::string& name, const bridge::Rules& rules,
                                               const bridge::Limits& limits = Quick(),
                                               const std::string& defaults = "") {
    auto device = MakeDevice(name, rules, limits, defaults);
    device->Start();
    simulation.Add(*device);
    return device;
  }

  bridge::MemoryBroker broker{bridge::Capabilities{true, true}};
  Simulation simulation{broker};
};

class SharedDevicesTest : public testing::Test, protected SharedDevices {};

}  // namespace tavix::test
