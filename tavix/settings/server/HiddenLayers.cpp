#include "tavix/settings/server/HiddenLayers.h"

#include <algorithm>

namespace tavix::settings::server {

const GroupLayers::Keys* FindKeys(const core::IniFile& document, const std::string& group) {
  const auto found = document.GetGroups().find(group);
  return found == document.GetGroups().end() ? nullptr : &found->second;
}

const std::string* FindValue(const GroupLayers::Keys* keys, const std::string& key) {
  if (!keys) return nullptr;
  const auto found = keys->find(key);
  return found == keys->end() ? nullptr : &found->second;
}

const std::string* GroupLayers::FindSeenDefault(const std::string& key) const {
  if (FindValue(user, key) || FindValue(unsaved, key) || FindValue(restricted, key)) return nullptr;
  return FindValue(all, key);
}

const std::string* GroupLayers::FindDefault(const std::string& key) const {
  const std::string* const hidden = FindValue(hiddenDefaults, key);
  return hidden ? hidden : FindSeenDefault(key);
}

bool GroupLayers::HasDefaults() const {
  if (hiddenDefaults || IsOfDefaultsAlone()) return true;
  return all && std::any_of(all->begin(), all->end(),
                            [&](const auto& setting) { return FindSeenDefault(setting.first) != nullptr; });
}

}  // namespace tavix::settings::server
