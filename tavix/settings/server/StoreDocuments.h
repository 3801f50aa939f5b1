#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/DeletedGroupsRecord.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/UserLayer.h"

namespace tavix::settings::server {

// Both documents of a store, what they hide, and what is known about them without a walk through them. Everybody may
// read them under the lock; StoreChange alone can change them.
//
// Threads: any. The documents are read while the lock is held; the rest needs no lock.
// Locks:   "SettingsMutex" guards the documents and the record. It is never held while the notification gate or a
//          dispatcher's mutex is taken.
class StoreDocuments {
 public:
  enum class Which {
    kAll,   // what readers see
    kUser,  // the user settings with their bookkeeping
  };

  // recordGroup: the group of the user settings that is the record of deleted groups.
  explicit StoreDocuments(const std::string& recordGroup) : _recordGroup(recordGroup), _record(recordGroup) {}

  StoreDocuments(const StoreDocuments&) = delete;
  StoreDocuments& operator=(const StoreDocuments&) = delete;

  osa::ReadWriteLock& GetLock() const TAVIX_RETURN_CAPABILITY(_lock) { return _lock; }

  const core::IniFile& GetAll() const TAVIX_REQUIRES_SHARED(_lock) { return _all; }
  const UserLayer& GetUser() const TAVIX_REQUIRES_SHARED(_lock) { return _user; }
  LayerView Get(Which which) const TAVIX_REQUIRES_SHARED(_lock) {
    return which == Which::kAll ? LayerView(_all) : LayerView(_user);
  }

  // The same without the keys of groups that both documents share.
  const core::IniFile& GetGroups(Which which) const TAVIX_REQUIRES_SHARED(_lock) {
    return which == Which::kAll ? _all : _user.GetGroups();
  }

  // Makes these groups of the user settings own ones, in parts. Nobody sees that. Throws std::bad_alloc.
  void OwnGroups(const core::IniFile& named) TAVIX_EXCLUDES(_lock);

  const DeletedGroupsRecord& GetRecord() const TAVIX_REQUIRES_SHARED(_lock) { return _record; }

  // One group in all layers, for a group that is layered: it is neither restricted nor the record.
  GroupLayers FindLayers(const std::string& group) const TAVIX_REQUIRES_SHARED(_lock) {
    const GroupLayers::Keys* const all = FindKeys(_all, group);
    return {all, _user.FindKeys(group, all), FindKeys(_hidden.defaults, group), FindKeys(_hidden.unsaved, group),
            FindKeys(_hidden.restricted, group)};
  }
  const HiddenLayers& GetHidden() const TAVIX_REQUIRES_SHARED(_lock) { return _hidden; }

  bool IsLayered(const std::string& group) const {
    return group != _recordGroup && !GroupDiscriminator::IsRestrictedGroup(group);
  }

  const std::string& GetRecordGroup() const { return _recordGroup; }
  const StoreAccount& GetAccount() const { return _account; }

  // For readers that release the lock between parts of a document.
  ChangeRecorders& GetRecorders() const { return _recorders; }

  // Another number, which no store ever had before, once anything that readers see may have changed.
  unsigned long long GetVersion() const { return _version.load(std::memory_order_acquire); }

  // Bounds of changes; 0: none.
  void SetMaxBytes(size_t bytes) { _account.SetBound(bytes); }
  void SetMaxDeletedPatterns(size_t count) { _maxDeletedPatterns = count; }
  size_t GetMaxDeletedPatterns() const { return _maxDeletedPatterns; }

 private:
  friend class StoreChange;

  const std::string _recordGroup;
  mutable osa::ReadWriteLock _lock{"SettingsMutex"};
  core::IniFile _all TAVIX_GUARDED_BY(_lock);
  UserLayer _user TAVIX_GUARDED_BY(_lock){_all};
  HiddenLayers _hidden TAVIX_GUARDED_BY(_lock);
  DeletedGroupsRecord _record TAVIX_GUARDED_BY(_lock);  // what _user holds of it
  StoreAccount _account;                                // of both documents and what they hide
  mutable ChangeRecorders _recorders;
  std::atomic<size_t> _maxDeletedPatterns{0};
  std::atomic<unsigned long long> _version{0};
};

}  // namespace tavix::settings::server
