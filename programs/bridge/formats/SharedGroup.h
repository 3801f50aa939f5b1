#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/formats/BadDocument.h"

namespace tavix::bridge {

// A group whole, as several devices share it: {"format":1,"keys":{...}}. masked: keys whose values stay at home.
std::string ComposeSharedGroup(const Keys& keys, const std::set<std::string>& masked);

// Throws BadDocument. A key that is masked is left out.
Keys ParseSharedGroup(const std::string& bytes, size_t maxBytes);

}  // namespace tavix::bridge
