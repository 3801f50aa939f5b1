#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/formats/BadDocument.h"

namespace tavix::bridge {

// A group as several devices share it. A plain value.
struct SharedGroup {
  Keys keys;
  std::set<std::string> masked;  // further keys, whose values stay with a device
};

// {"format":1,"keys":{...}}
std::string ComposeSharedGroup(const Keys& keys, const std::set<std::string>& masked);

// Throws BadDocument.
SharedGroup ParseSharedGroup(const std::string& bytes, size_t maxBytes);

}  // namespace tavix::bridge
