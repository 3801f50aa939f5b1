#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/SharedPlaces.h"

namespace tavix::settings::server {

class StoreAccount;

// The user settings of a store. A group that readers see as the user settings have it is in memory once: its keys are
// in the document of what readers see, and this one has its name alone. Such a group is shared. Who changes it in both
// documents alike changes what readers see alone (AddSharedKeys), or takes the group out of both (Forget).
// Who changes one of the two, or each in its own way, makes it an own group: from then on the user settings have keys
// of their own for it. Either the keys are copied before (Own), or the group is forgotten and gets all its keys as new
// ones. Only loading shares groups.
//
// Threads: guarded by the store's lock, as the document of what readers see.
class UserLayer {
 public:
  using Keys = core::IniFile::KeyMap;

  // all: what readers see; outlives the object.
  explicit UserLayer(const core::IniFile& all) : _all(all) {}

  UserLayer(const UserLayer&) = delete;
  UserLayer& operator=(const UserLayer&) = delete;

  // All groups, but without the keys of those that are shared: for what concerns names, and own groups. What is to be
  // read goes through a LayerView.
  const core::IniFile& GetGroups() const { return _groups; }
  core::IniFile& GetMutableGroups() { return _groups; }

  // keys: of a group of GetGroups.
  bool IsShared(const Keys& keys) const { return keys.empty() && _shared.Has(keys); }
  bool IsShared(const std::string& name) const;

  // Null: there is no such group. all: the keys that readers see of it.
  const Keys* FindKeys(const std::string& name, const Keys* all) const {
    const Keys* const keys = server::FindKeys(_groups, name);
    return keys && IsShared(*keys) ? all : keys;
  }

  // Of a shared group.
  const Keys& GetSharedKeys(const std::string& name) const { return *server::FindKeys(_all, name); }

  // place: a group of GetGroups. The same with its keys.
  core::IniFile::const_iterator Resolve(core::IniFile::const_iterator place) const;

  // Replaces all of it. shared: groups of "groups", as readers see them.
  void Replace(core::IniFile&& groups, SharedPlaces&& shared) {
    _groups = std::move(groups);
    _shared = std::move(shared);
  }

  bool HasShared() const { return !_shared.IsEmpty(); }
  size_t CountShared() const { return _shared.CountGroups(); }
  size_t CountSharedKeys() const { return _shared.CountKeys(); }

  // Makes groups own ones, which nobody sees but the account. Throws std::bad_alloc: some may have become own groups.
  // The first returns how many keys were copied.
  size_t Own(const std::string& name, StoreAccount& account);
  void Own(const core::IniFile& named, StoreAccount& account);

  // Readers see so many more keys of shared groups; negative: fewer.
  void AddSharedKeys(std::ptrdiff_t keys) noexcept { _shared.AddKeys(keys); }

  // Those of the groups that are shared are own ones without keys from now on. What readers see of them is still as it
  // was.
  void Forget(const std::set<std::string>& names) noexcept;

 private:
  const core::IniFile& _all;
  core::IniFile _groups;
  SharedPlaces _shared;
};

}  // namespace tavix::settings::server
