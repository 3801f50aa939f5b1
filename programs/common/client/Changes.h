#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

// What differs between two documents.
namespace tavix::programs {

// One setting that differs; or, without a key, a group that came without settings or went.
struct Change {
  std::string group;
  std::optional<std::string> key;
  std::optional<std::string> before;  // of a setting; empty: it was not there
  std::optional<std::string> after;
  bool hasCome = false;  // of a group
};

// In ascending order of groups and keys; a group that went stands before its settings.
std::vector<Change> FindChanges(const core::IniFile& before, const core::IniFile& after);

// An object with "group", "key", "old" and "new"; or, without a key, with "group" and "event".
nlohmann::json ToJson(const Change& change);

}  // namespace tavix::programs
