#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// What a store needs, beside what readers see and the user settings, to take a value out of a layer without reading a
// file: it holds what other layers hide, so that no default is in memory twice. Neither restricted groups nor the
// record of deleted groups are in it, as no change takes them out of a layer. A plain value.
struct HiddenLayers {
  core::IniFile defaults;    // those that readers do not see; a group without keys is one without keys in the defaults
  core::IniFile unsaved;     // the keys, without values, of what readers see until the next start only
  core::IniFile restricted;  // what the restricted loader brought for groups that are not restricted
};

// One group in the layers of a store. Valid until the store changes.
struct GroupLayers {
  using Keys = core::IniFile::KeyMap;

  // Null: the layer does not have the group.
  const Keys* all = nullptr;
  const Keys* user = nullptr;
  const Keys* hiddenDefaults = nullptr;
  const Keys* unsaved = nullptr;
  const Keys* restricted = nullptr;

  // The default that readers see. Null: they see another layer's value, or none.
  const std::string* FindSeenDefault(const std::string& key) const;

  // The default, seen or not. Null: there is none.
  const std::string* FindDefault(const std::string& key) const;

  // Whether the group is in the defaults. O(keys) where each key of the group is of another layer.
  bool HasDefaults() const;

  // Whether the user settings have the group, and it is in memory once.
  bool IsShared() const { return all && user == all; }

  // Whether readers see the group as the defaults have it.
  bool IsOfDefaultsAlone() const { return all && !user && !unsaved && !restricted; }

  // Whether the defaults have it without keys, and nothing in "hiddenDefaults" says so.
  bool IsUnmarkedEmptyDefault() const { return IsOfDefaultsAlone() && all->empty() && !hiddenDefaults; }
};

// Null: there is no such group, or no such key.
const GroupLayers::Keys* FindKeys(const core::IniFile& document, const std::string& group);
const std::string* FindValue(const GroupLayers::Keys* keys, const std::string& key);

}  // namespace tavix::settings::server
