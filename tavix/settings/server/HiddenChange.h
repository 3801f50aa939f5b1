#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

class StoreAccount;

// What a change that removes groups and then sets values does to the hidden layers of a store: the defaults that it
// hides are copied before, so that carrying it out asks for no memory.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
class HiddenChange {
 public:
  HiddenChange() = default;

  HiddenChange(const HiddenChange&) = delete;
  HiddenChange& operator=(const HiddenChange&) = delete;

  // Adds what is hidden once the groups "removed" go and "settings" are merged. isPersistent: into the user settings,
  // too.
  void Add(const StoreDocuments& documents, const core::IniFile& settings, const std::set<std::string>& removed,
           bool isPersistent) TAVIX_REQUIRES_SHARED(documents.GetLock());

  // The same, anew and in parts under the read lock.
  void Make(const StoreDocuments& documents, const core::IniFile& settings, const std::set<std::string>& removed,
            bool isPersistent) TAVIX_EXCLUDES(documents.GetLock());

  // Takes groups out that others changed since Make.
  void Withdraw(const std::set<std::string>& changedGroups);

  // Whether groups that get values are in memory once.
  bool HasShared() const { return _hasShared; }

  // How many bytes the hidden layers get at most, as the store's account counts them.
  size_t GetBytes() const { return _bytes; }

  // Once. What is left over is destroyed with the object.
  void CarryOut(HiddenLayers& hidden, StoreAccount& account) noexcept;

  // What a persistent change removes or sets is not unsaved any more.
  static void ForgetUnsaved(HiddenLayers& hidden, StoreAccount& account, const core::IniFile& settings,
                            const std::set<std::string>& removed) noexcept;

 private:
  using Group = core::IniFile::GroupMap::value_type;

  void AddRemoved(const StoreDocuments& documents, const std::string& name) TAVIX_REQUIRES_SHARED(documents.GetLock());
  void AddSet(const StoreDocuments& documents, const Group& group, bool isPersistent)
      TAVIX_REQUIRES_SHARED(documents.GetLock());
  void AddUnsaved(const GroupLayers& layers, const Group& group);
  void Hide(const GroupLayers& layers, const std::string& group, const std::string& key);
  core::IniFile::KeyMap& AddGroup(core::IniFile& target, const std::string& group);
  void AddSetting(core::IniFile& target, const std::string& group, const std::string& key, const std::string& value);
  void Withdraw(core::IniFile& from, const std::string& name);

  core::IniFile _defaults;
  core::IniFile _unsaved;
  size_t _bytes = 0;
  bool _hasShared = false;
};

}  // namespace tavix::settings::server
