#pragma once

#include "tavix/core/IniFile.h"

namespace tavix::settings {

// A conditional change of a store's user settings, which is made as one step or not at all. A plain value.
//
// The conditions come first. When one of them does not hold, nothing is changed:
//
//     present  every value of it is what readers see; a group without keys asks for nothing
//     absent   no key of it is set; of a group without keys: there is no such group
//
// Then the changes, in this order:
//
//     replace  groups become exactly what stands here, as by an overwrite: their names join the record of deleted
//              groups, so that their defaults do not come back. A group without keys goes
//     set      is merged
//     unset    keys leave the user settings, so that their defaults show again; a group of the user settings goes with
//              its last key. Of a group without keys all user values leave, and its name leaves the record of deleted
//              groups
//
// In absent and unset a value does not count: the text form of a key is "key=". All names are names, never patterns,
// but for a pattern in the record of deleted groups: a group of unset without keys that is spelled alike takes it off.
//
// An amendment fails, and changes nothing, when
//
//     a key is both in set and in unset, or a group without keys of unset is a group of set, too;
//     a group of replace is a group of set or of unset;
//     a group of replace has a "*" in its name, which would be a pattern in the record;
//     a pattern in the record still hides a group without keys of unset, since it does not leave by the same change.
//
// Restricted groups are dropped from all three changes first, and are not recorded.
struct Amendment {
  core::IniFile present;
  core::IniFile absent;
  core::IniFile set;
  core::IniFile unset;
  core::IniFile replace;
};

}  // namespace tavix::settings
