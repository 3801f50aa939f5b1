#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/core/ThreeWayMerge.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"

namespace tavix::bridge {

// What a document does to keys, and on what condition. A plain value.
struct DocumentStep {
  settings::Amendment amendment;
  std::vector<std::pair<std::string, std::string>> keys;  // groups and keys that it decides
  std::set<std::string> losing;                           // groups that lose values of the user's
  std::vector<Conflict> conflicts;
};

// What the device holds of the groups that are looked at. A plain value.
struct PresentKeys {
  core::IniFile shown;  // to readers
  core::IniFile users;  // the user's values alone, of groups where that matters
};

// A document that the device did not take. A plain value.
struct BlockedDocument {
  size_t failures = 0;  // one after the other
  std::optional<Milliseconds> next;
  std::string reason;
};

}  // namespace tavix::bridge
