#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"
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

// What one of them takes in memory, about.
size_t CountBytes(const SettingName& name);
size_t CountBytes(const OldSettings::value_type& setting);

// All that a change writes, with what it was before. Throws std::bad_alloc.
OldSettings FindWritten(const settings::server::PlannedChange& change);

// Those of "settings" that a change writes, the same value as before or another one, in ascending order. Costs what the
// change is long and what is found, but for a pattern that begins with a "*". Throws std::bad_alloc.
std::vector<OldSettings::iterator> FindWritten(const settings::server::PlannedChange& change, OldSettings& settings);

// Adds what brings one of them back, if the user settings are different from it. A "revert" of many never contradicts
// itself. Throws std::bad_alloc.
void AddToRevert(const OldSettings::value_type& setting, const settings::server::LayerView& userSettings,
                 settings::server::StoreAmendment& revert);

// What the user settings have now. Null: they do not have it.
const std::string* FindNow(const SettingName& name, const settings::server::LayerView& userSettings);

}  // namespace tavix::daemon
