#include "tavix/settings/server/AmendedGroup.h"

#include <algorithm>

namespace tavix::settings::server {

namespace {

void AddKeys(AmendedGroup::Names& names, const AmendedGroup::Keys* keys) {
  if (!keys) return;
  for (const auto& setting : *keys) names.insert(setting.first);
}

}  // namespace

const std::string* AmendedGroup::FindUser(const std::string& key) const {
  if (replace) return FindValue(replace, key);
  if (const std::string* value = FindValue(set, key)) return value;
  const bool isKept = !isDropped && (!unset || (!unset->empty() && unset->count(key) == 0));
  return isKept ? FindValue(layers.user, key) : nullptr;
}

const std::string* AmendedGroup::FindSeen(const std::string& key) const {
  if (const std::string* value = FindValue(layers.restricted, key)) return value;
  if (const std::string* value = FindUser(key)) return value;
  return isDeleted ? nullptr : layers.FindDefault(key);
}

bool AmendedGroup::HasUser() const {
  if (replace) return !replace->empty();
  if (set || !layers.user) return set != nullptr;
  if (isDropped || (unset && unset->empty())) return false;
  return layers.user->empty() || std::any_of(layers.user->begin(), layers.user->end(),
                                             [&](const auto& setting) { return FindUser(setting.first) != nullptr; });
}

bool AmendedGroup::AppearsByDefaults() const {
  return !layers.all && !isDeleted && !layers.restricted && !HasUser() && layers.HasDefaults();
}

bool AmendedGroup::StaysShared(const Names& touched) const {
  return HasUser() && std::all_of(touched.begin(), touched.end(), [&](const std::string& key) {
           const std::string* const own = FindUser(key);
           const std::string* const other = FindSeen(key);
           return own && other ? *own == *other : own == other;
         });
}

AmendedGroup::Names AmendedGroup::FindTouchedKeys() const {
  Names keys;
  for (const Keys* some : {replace, set, unset}) AddKeys(keys, some);
  if (!isWhole) return keys;
  for (const Keys* some : {layers.all, layers.user, layers.hiddenDefaults, layers.restricted}) AddKeys(keys, some);
  return keys;
}

AmendedGroup::Names AmendedGroup::FindPossibleUserKeys() const {
  Names keys;
  for (const Keys* some : {layers.user, replace, set}) AddKeys(keys, some);
  return keys;
}

}  // namespace tavix::settings::server
