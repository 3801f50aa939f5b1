#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/PlannedChange.h"
#include "tavix/settings/server/StoreAmendment.h"

// The user settings that a trial may have to bring back.

namespace tavix::daemon {

// A user setting; without a key: a group without keys.
struct SettingName {
  std::string group;
  std::optional<std::string> key;

  bool operator<(const SettingName& other) const {
    return group != other.group ? group < other.group : key < other.key;
  }
  bool operator==(const SettingName& other) const { return group == other.group && key == other.key; }
};

// Settings with the values that they had; empty: they were not there. A group that was there has the value "".
using OldSettings = std::map<SettingName, std::optional<std::string>>;

// All that a change writes, with what it was before. Throws std::bad_alloc.
OldSettings FindWritten(const settings::server::PlannedChange& change);

// Moves those out of "settings" that a change writes, the same value as before or another one. Throws std::bad_alloc,
// and has moved nothing out then.
OldSettings TakeWritten(const settings::server::PlannedChange& change, OldSettings& settings);

// Whether a change writes one of these.
bool WritesAny(const settings::server::PlannedChange& change, const OldSettings& settings);

// What brings these settings back, as far as the user settings are different from them. It never contradicts itself.
// Throws std::bad_alloc.
settings::server::StoreAmendment MakeRevert(const OldSettings& settings, const core::IniFile& userSettings);

}  // namespace tavix::daemon
