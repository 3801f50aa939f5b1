#pragma once

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

}  // namespace tavix::test
