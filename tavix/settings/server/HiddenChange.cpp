#include "tavix/settings/server/HiddenChange.h"

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

constexpr size_t kGroupsOfAPart = 200;  // each is searched in some documents, and keys are copied

void Take(StoreAccount& account, size_t bytes) {
  account.Add(-static_cast<std::ptrdiff_t>(bytes));
}

// Moves what the target lacks. The account has all of it already.
void MoveInto(IniFile& target, IniFile& source, StoreAccount& account) noexcept {
  IniFile::GroupMap& groups = target.GetMutableGroups();
  IniFile::GroupMap& added = source.GetMutableGroups();
  if (groups.empty()) return groups.swap(added);
  for (auto next = added.begin(); next != added.end();) {
    const auto group = next++;
    const auto place = groups.lower_bound(group->first);
    if (place == groups.end() || place->first != group->first) {
      groups.insert(place, added.extract(group));
      continue;
    }
    place->second.merge(group->second);
    Take(account, StoreAccount::CountGroup(group->first, group->second));
  }
}

void ForgetKeys(IniFile& unsaved, StoreAccount& account, const IniFile::GroupMap::value_type& changed) noexcept {
  const auto group = unsaved.GetMutableGroups().find(changed.first);
  if (group == unsaved.end()) return;
  for (const auto& setting : changed.second) {
    const auto key = group->second.find(setting.first);
    if (key == group->second.end()) continue;
    Take(account, StoreAccount::CountSetting(key->first, key->second));
    group->second.erase(key);
  }
  if (!group->second.empty()) return;
  Take(account, StoreAccount::CountGroup(group->first, {}));
  unsaved.RemoveGroup(group);
}

}  // namespace

void HiddenChange::Add(const StoreDocuments& documents, const IniFile& settings, const std::set<std::string>& removed,
                       bool isPersistent) {
  for (const std::string& name : removed) AddRemoved(documents, name);
  for (const auto& group : settings) {
    if (removed.count(group.first) == 0) AddSet(documents, group, isPersistent);
  }
}

void HiddenChange::Make(const StoreDocuments& documents, const IniFile& settings, const std::set<std::string>& removed,
                        bool isPersistent) {
  _defaults.Clear();
  _unsaved.Clear();
  _bytes = 0;
  for (auto name = removed.begin(); name != removed.end();) {
    const osa::ReadAutoLock lock(documents.GetLock());
    for (size_t left = kGroupsOfAPart; left > 0 && name != removed.end(); --left, ++name) AddRemoved(documents, *name);
  }
  for (auto group = settings.begin(); group != settings.end();) {
    const osa::ReadAutoLock lock(documents.GetLock());
    for (size_t left = kGroupsOfAPart; left > 0 && group != settings.end(); --left, ++group) {
      if (removed.count(group->first) == 0) AddSet(documents, *group, isPersistent);
    }
  }
}

void HiddenChange::AddRemoved(const StoreDocuments& documents, const std::string& name) {
  if (!documents.IsLayered(name)) return;
  const GroupLayers layers = documents.FindLayers(name);
  if (!layers.all) return;
  if (layers.IsUnmarkedEmptyDefault()) AddGroup(_defaults, name);
  for (const auto& setting : *layers.all) Hide(layers, name, setting.first);
}

void HiddenChange::AddSet(const StoreDocuments& documents, const Group& group, bool isPersistent) {
  if (!documents.IsLayered(group.first)) return;
  const GroupLayers layers = documents.FindLayers(group.first);
  if (layers.IsUnmarkedEmptyDefault()) AddGroup(_defaults, group.first);
  if (layers.IsShared()) {  // readers see none of its defaults
    _hasShared = true;
  } else if (layers.all) {
    for (const auto& setting : group.second) Hide(layers, group.first, setting.first);
  }
  if (!isPersistent) AddUnsaved(layers, group);
}

void HiddenChange::AddUnsaved(const GroupLayers& layers, const Group& group) {
  if (!layers.unsaved) AddGroup(_unsaved, group.first);
  for (const auto& setting : group.second) {
    if (!FindValue(layers.unsaved, setting.first)) AddSetting(_unsaved, group.first, setting.first, {});
  }
}

void HiddenChange::Hide(const GroupLayers& layers, const std::string& group, const std::string& key) {
  const std::string* const value = layers.FindSeenDefault(key);
  if (value && !FindValue(layers.hiddenDefaults, key)) AddSetting(_defaults, group, key, *value);
}

IniFile::KeyMap& HiddenChange::AddGroup(IniFile& target, const std::string& group) {
  const auto [place, isNew] = target.GetMutableGroups().try_emplace(group);
  if (isNew) _bytes += StoreAccount::CountGroup(group, {});
  return place->second;
}

void HiddenChange::AddSetting(IniFile& target, const std::string& group, const std::string& key,
                              const std::string& value) {
  IniFile::KeyMap& keys = AddGroup(target, group);
  keys.emplace_hint(keys.end(), key, value);
  _bytes += StoreAccount::CountSetting(key, value);
}

void HiddenChange::Withdraw(const std::set<std::string>& changedGroups) {
  for (const std::string& name : changedGroups) {
    Withdraw(_defaults, name);
    Withdraw(_unsaved, name);
  }
}

void HiddenChange::Withdraw(IniFile& from, const std::string& name) {
  const auto group = from.GetMutableGroups().find(name);
  if (group == from.end()) return;
  _bytes -= StoreAccount::CountGroup(name, group->second);
  from.RemoveGroup(group);
}

void HiddenChange::CarryOut(HiddenLayers& hidden, StoreAccount& account) noexcept {
  account.Add(static_cast<std::ptrdiff_t>(_bytes));
  MoveInto(hidden.defaults, _defaults, account);
  MoveInto(hidden.unsaved, _unsaved, account);
}

void HiddenChange::ForgetUnsaved(HiddenLayers& hidden, StoreAccount& account, const IniFile& settings,
                                 const std::set<std::string>& removed) noexcept {
  if (hidden.unsaved.IsEmpty()) return;
  for (const std::string& name : removed) {
    const auto group = hidden.unsaved.GetMutableGroups().find(name);
    if (group == hidden.unsaved.end()) continue;
    Take(account, StoreAccount::CountGroup(name, group->second));
    hidden.unsaved.RemoveGroup(group);
  }
  for (const auto& group : settings) ForgetKeys(hidden.unsaved, account, group);
}

}  // namespace tavix::settings::server
