#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// What a change is about to write to the user settings, whether or not that differs from what is there. A plain value.
//
// Owns: nothing. Valid during the call that it is passed to. A null pointer: nothing of this kind.
struct PlannedChange {
  LayerView userSettings;  // before the change
  const ChangeOrigin& origin;
  bool isSaved = true;  // false: only what readers see is changed

  // Groups go first: those of these names that are there. "asked": the names and patterns that were to go.
  const std::set<std::string>* removed = nullptr;
  const common::GroupNameMatcher* asked = nullptr;

  // Names and patterns that join the record of deleted groups, or are in it already. Null, with groups that go: the
  // record is a group as any other.
  const std::set<std::string>* recorded = nullptr;

  // Then keys go; of a group without keys all, and its name leaves the record.
  const core::IniFile* unset = nullptr;

  // Then values are set. A group without keys is there from then on.
  const core::IniFile* set = nullptr;
  const core::IniFile* replaced = nullptr;  // of the groups that go, what comes in their place

  // What the record of deleted groups gets under which keys, and the keys that it loses.
  const core::IniFile::KeyMap* recordSet = nullptr;
  const std::set<std::string>* recordErased = nullptr;
};

}  // namespace tavix::settings::server
