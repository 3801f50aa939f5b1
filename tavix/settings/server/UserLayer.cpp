#include "tavix/settings/server/UserLayer.h"

#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

IniFile::const_iterator UserLayer::Resolve(IniFile::const_iterator place) const {
  return IsShared(place) ? _all.GetGroups().find(place->first) : place;
}

bool UserLayer::IsShared(const std::string& name) const {
  if (!HasShared()) return false;
  const auto group = _groups.GetGroups().find(name);
  return group != _groups.end() && IsShared(group);
}

void UserLayer::Own(const std::string& name, StoreAccount& account) {
  const auto group = _groups.GetMutableGroups().find(name);
  if (group == _groups.end() || !IsShared(group)) return;
  Keys keys = Resolve(group)->second;
  const size_t count = keys.size();
  account.Add(static_cast<std::ptrdiff_t>(StoreAccount::CountGroup(name, keys) - StoreAccount::CountGroup(name, {})));
  account.GetUserTally().OnKeysAdded(count);
  group->second.swap(keys);
  _shared.Remove(group->second, count);
}

void UserLayer::Own(const IniFile& named, StoreAccount& account) {
  if (!HasShared()) return;
  for (const auto& group : named) Own(group.first, account);
}

void UserLayer::CountKeys(const IniFile& named, int sign) noexcept {
  if (!HasShared()) return;
  for (const auto& other : named) {
    const auto group = _groups.GetGroups().find(other.first);
    if (group != _groups.end() && IsShared(group))
      _shared.AddKeys(sign * static_cast<std::ptrdiff_t>(Resolve(group)->second.size()));
  }
}

void UserLayer::Forget(const std::set<std::string>& names) noexcept {
  if (!HasShared()) return;
  for (const std::string& name : names) {
    const auto group = _groups.GetGroups().find(name);
    if (group != _groups.end() && IsShared(group)) _shared.Remove(group->second, Resolve(group)->second.size());
  }
}

}  // namespace tavix::settings::server
