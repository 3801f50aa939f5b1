#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::bridge {

// What a group holds: its keys with their values. Without keys: there is no such group, as nothing distinguishes both
// outside of the device.
using Keys = core::IniFile::KeyMap;

// A moment of a clock that only goes forward, and spans of it. The core has no clock: each call gets the moment.
using Milliseconds = std::chrono::milliseconds;

// The two ends of a bridge.
enum class Side {
  kDevice,  // the daemon's store
  kCentre,  // what stands behind the engine
};

// The value of a key; nothing when the group lacks it.
inline std::optional<std::string> FindValue(const Keys& keys, const std::string& key) {
  const auto found = keys.find(key);
  if (found == keys.end()) return std::nullopt;
  return found->second;
}

}  // namespace tavix::bridge
