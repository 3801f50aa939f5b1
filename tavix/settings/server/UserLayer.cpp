#include "tavix/settings/server/UserLayer.h"

#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

IniFile::const_iterator UserLayer::Resolve(IniFile::const_iterator place) const {
  return IsShared(place->second) ? _all.GetGroups().find(place->first) : place;
}

bool UserLayer::IsShared(const std::string& name) const {
  const Keys* const keys = HasShared() ? server::FindKeys(_groups, name) : nullptr;
  return keys && IsShared(*keys);
}

size_t UserLayer::Own(const std::string& name, StoreAccount& account) {
  const auto group = _groups.GetMutableGroups().find(name);
  if (group == _groups.end() || !IsShared(group->second)) return 0;
  Keys keys = GetSharedKeys(name);
  for (const auto& [key, value] : keys)
    account.Add(static_cast<std::ptrdiff_t>(StoreAccount::CountSetting(key, value)));
  account.GetUserTally().OnKeysAdded(keys.size());
  _shared.Remove(group->second, keys.size());
  group->second.swap(keys);
  return group->second.size();
}

void UserLayer::Own(const IniFile& named, StoreAccount& account) {
  if (!HasShared()) return;
  for (const auto& group : named) Own(group.first, account);
}

void UserLayer::Forget(const std::set<std::string>& names) noexcept {
  if (!HasShared()) return;
  for (const std::string& name : names) {
    const Keys* const keys = server::FindKeys(_groups, name);
    if (keys && IsShared(*keys)) _shared.Remove(*keys, GetSharedKeys(name).size());
  }
}

}  // namespace tavix::settings::server
