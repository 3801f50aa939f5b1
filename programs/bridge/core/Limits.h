#pragma once

#include <cstddef>

#include "programs/bridge/core/Keys.h"

namespace tavix::bridge {

// What a bridge may cost, and how fast it may be: the section [limits] of its configuration. A plain value.
struct Limits {
  size_t maxGroups = 10'000;                          // that are mirrored
  size_t maxPendingBytes = 64 * size_t{1024} * 1024;  // of the groups that are mirrored
  size_t maxDocument = size_t{1024} * 1024;           // bytes of one document from outside
  size_t maxInFlight = 20;                            // messages that no reply confirmed yet
  size_t maxAttempts = 8;                             // of a write that others get ahead of
  size_t maxConflicts = 100;                          // that are remembered

  Milliseconds groupInterval{200};  // between two messages of one group
  size_t deviceRate = 10;           // messages a second
  size_t deviceBurst = 50;          // messages beyond that rate

  Milliseconds spread{60'000};           // documents for many devices are applied within this
  Milliseconds reconnectMin{5'000};      // the first limit of the random wait before a connect
  Milliseconds reconnectMax{300'000};    // the last one
  Milliseconds reconnectStable{60'000};  // a connection that lasted this long resets the limit
  Milliseconds statusInterval{60'000};   // between two messages of the status that no change of state asks for
  Milliseconds missingAfter{30'000};     // a listed document that has not come is asked for alone

  size_t heldGroups = 10;           // a source may take values from so many groups at once, and from half of them
  Milliseconds heldWindow{60'000};  // what "at once" is
};

}  // namespace tavix::bridge
