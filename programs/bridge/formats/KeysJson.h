#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>

#include "programs/bridge/core/Keys.h"

namespace tavix::bridge {

// Keys with their values as the command has them in JSON. masked: keys whose value is {"masked":true}.
nlohmann::json KeysToJson(const Keys& keys, const std::set<std::string>& masked);

// The bytes that a value in that form stands for; nothing: it has another form.
std::optional<std::string> ValueFromJson(const nlohmann::json& value);

}  // namespace tavix::bridge
