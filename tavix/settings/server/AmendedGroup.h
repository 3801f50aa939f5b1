#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/settings/server/HiddenLayers.h"

namespace tavix::settings::server {

// One group that an amendment touches: its layers as they are, and what the amendment makes of it. A plain value.
//
// Owns: nothing. Valid until the store changes; the amendment outlives it.
struct AmendedGroup {
  using Keys = GroupLayers::Keys;
  using Names = std::set<std::string>;

  const std::string& name;
  const GroupLayers layers;
  bool isWhole;          // all of its keys are touched
  const bool isDeleted;  // by the record, once the amendment is made
  const bool isDropped;

  // Null: the amendment does not name it there.
  const Keys* const replace;
  const Keys* const set;
  const Keys* const unset;

  // Counted while its keys are gone through.
  std::ptrdiff_t seen = 0;     // keys that readers see then
  size_t unhidden = 0;         // hidden defaults that readers see then
  bool hidesDefaults = false;  // others than before
  size_t saved = 0;            // unsaved keys that are not any more

  // What the user settings have then, and what readers see. Null: no such key.
  const std::string* FindUser(const std::string& key) const;
  const std::string* FindSeen(const std::string& key) const;

  // Whether the user settings have the group then: it goes with its last key, unless it had none before.
  bool HasUser() const;

  // Whether readers, who see no such group, will see it for its defaults alone.
  bool AppearsByDefaults() const;

  // Of a group that is shared, with its touched keys: whether the user settings have it then, and as readers see it.
  bool StaysShared(const Names& touched) const;

  // The touched keys, and all that the user settings may have then.
  Names FindTouchedKeys() const;
  Names FindPossibleUserKeys() const;
};

}  // namespace tavix::settings::server
