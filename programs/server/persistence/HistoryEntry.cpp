#include "programs/server/persistence/HistoryEntry.h"

namespace tavix::daemon {

using KeyMap = core::IniFile::KeyMap;

namespace {

bool IsEmptyGroup(const KeyMap* keys) {
  return keys && keys->empty();
}

// Null: the group has no such key.
const std::string* FindValue(const KeyMap* keys, const std::string& key) {
  if (!keys) return nullptr;
  const auto setting = keys->find(key);
  return setting == keys->end() ? nullptr : &setting->second;
}

}  // namespace

const KeyMap* FindGroup(const core::IniFile& document, const std::string& name) {
  const auto group = document.GetGroups().find(name);
  return group == document.GetGroups().end() ? nullptr : &group->second;
}

void AddDifference(const std::string& group, const KeyMap* before, const KeyMap* after, HistoryEntry& entry) {
  if (IsEmptyGroup(before) && !IsEmptyGroup(after)) entry.was[group];
  if (IsEmptyGroup(after) && !IsEmptyGroup(before)) {
    entry.wasNot[group];
    entry.is[group];
  }
  static const KeyMap none;
  for (const auto& [key, value] : before ? *before : none) {
    const std::string* const now = FindValue(after, key);
    if (!now || *now != value) entry.was[group].emplace(key, value);
  }
  for (const auto& [key, value] : after ? *after : none) {
    const std::string* const old = FindValue(before, key);
    if (old && *old == value) continue;
    if (!old) entry.wasNot[group].emplace(key, std::string());
    entry.is[group].emplace(key, value);
  }
}

// A group that loses its last key goes: one that was empty before comes back with the old settings.
void Undo(const HistoryEntry& entry, core::IniFile& document) {
  for (const auto& [name, keys] : entry.wasNot) {
    const auto group = document.GetMutableGroups().find(name);
    if (group == document.end()) continue;
    for (const auto& setting : keys) group->second.erase(setting.first);
    if (group->second.empty()) document.RemoveGroup(name);
  }
  document.MergeSettings(entry.was);
}

}  // namespace tavix::daemon
