#include "tavix/settings/server/PreparedMerge.h"

#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/DocumentTally.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/UserLayer.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

std::ptrdiff_t CountSetting(const std::string& key, const std::string& value) {
  return static_cast<std::ptrdiff_t>(StoreAccount::CountSetting(key, value));
}

}  // namespace

void PreparedMerge::Prepare(UserLayer& user, const IniFile& settings, const std::set<std::string>& removed,
                            std::set<std::string>* different) {
  for (const auto& group : settings) {
    const bool isDifferent = Prepare(user.GetMutableGroups(), &user, group, removed);
    if (different && isDifferent && removed.count(group.first) == 0) different->insert(different->end(), group.first);
  }
}

// Like those below, returns whether the group will hold something else, unless it is removed.
bool PreparedMerge::Prepare(IniFile& document, const UserLayer* user, const Group& change,
                            const std::set<std::string>& removed) {
  IniFile::GroupMap& groups = document.GetMutableGroups();
  const auto group = groups.find(change.first);
  if (group == groups.end() || removed.count(change.first) != 0) return AddKeys(change);
  const bool isShared = user && user->IsShared(group->second);
  return isShared ? CountShared(user->GetSharedKeys(change.first), change) : MergeKeys(group->second, change);
}

bool PreparedMerge::AddKeys(const Group& group) {
  IniFile::KeyMap& added = _added[group.first];
  for (const auto& [key, value] : group.second) {
    added.emplace_hint(added.end(), key, value);
    _growth += CountSetting(key, value);
  }
  return true;
}

bool PreparedMerge::CountShared(const IniFile::KeyMap& keys, const Group& change) {
  _sharedKeys += CountMissingKeys(keys, change.second);
  return !HoldsKeys(keys, change.second);
}

bool PreparedMerge::MergeKeys(IniFile::KeyMap& keys, const Group& change) {
  bool isDifferent = false;
  for (const auto& [key, value] : change.second) {
    const auto own = keys.find(key);
    if (own == keys.end()) {
      _added[change.first].emplace(key, value);
      _growth += CountSetting(key, value);
    } else if (own->second != value) {
      _changed.emplace_back(&own->second, value);
      _growth += CountSetting(key, value) - CountSetting(key, own->second);
    } else {
      continue;
    }
    isDifferent = true;
  }
  return isDifferent;
}

void PreparedMerge::CarryOut(IniFile& document, StoreAccount& account, DocumentTally& tally) noexcept {
  for (auto& [value, replacement] : _changed) value->swap(replacement);
  account.Add(_growth);
  IniFile::GroupMap& groups = document.GetMutableGroups();
  IniFile::GroupMap& added = _added.GetMutableGroups();
  for (auto next = added.begin(); next != added.end();) {
    const auto source = next++;
    const auto group = groups.find(source->first);
    if (group == groups.end()) {
      account.Add(static_cast<std::ptrdiff_t>(StoreAccount::CountGroup(source->first, {})));
      tally.OnGroupAdded(source->first, source->second.size());
      groups.insert(added.extract(source));
    } else {
      tally.OnKeysAdded(source->second.size());
      group->second.merge(source->second);
    }
  }
}

}  // namespace tavix::settings::server
