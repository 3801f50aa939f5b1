#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

class ChangeNotifier;
class ISettingsPersister;

// One change of a store, and the only way to change its documents. A writer fills a ChangeRequest with what differs
// from the other writers; Make does what all have in common, in this order:
//
//   without the lock      the request is prepared
//   under the write lock  what changed in between is matched and tested again; bounds are checked. From here on nothing
//                         refuses the change: the store gets a new version, readers in parts are given the names of the
//                         groups, both documents are changed, the record of deleted groups is hidden from readers, what
//                         differs is saved
//   behind the lock       the persister learns of a request that changed nothing, subscribers are notified; what was
//                         replaced is destroyed with the object
//
// Threads: one at a time.
// Locks:   "SettingsMutex". It is not held when subscribers are notified.
// Errors:  osa::Exception in a change callback, RefusedChange beyond a bound: then nothing is changed. Those of the
//          persister and of callbacks pass through: then the change stays in memory, and the rest is not done.
class StoreChange {
 public:
  // All outlive the object. persister: may be null.
  StoreChange(StoreDocuments& documents, ISettingsPersister* persister, const ChangeNotifier& notifier,
              ChangeRequest& request);

  StoreChange(const StoreChange&) = delete;
  StoreChange& operator=(const StoreChange&) = delete;

  // Once only. Returns false when the request's test fails: then nothing is changed and nobody is notified.
  [[nodiscard]] bool Make() TAVIX_EXCLUDES(_documents.GetLock());

  // The same by a caller that holds the lock, for a request that only sets values or was prepared before. Nobody is
  // notified.
  void MakeLocked() TAVIX_REQUIRES(_documents.GetLock());

  // Replaces both documents, as loading does: no bounds, nothing is saved, nobody is notified.
  static void ReplaceAll(StoreDocuments& documents, core::IniFile all, core::IniFile user)
      TAVIX_REQUIRES(documents.GetLock());

 private:
  static void BeginVersion(StoreDocuments& documents);

  bool MakeUnderLock() TAVIX_REQUIRES(_documents.GetLock());
  void RequirePatterns() const TAVIX_REQUIRES(_documents.GetLock());
  void RequireRoom() TAVIX_REQUIRES(_documents.GetLock());
  void NoteGroups() const TAVIX_REQUIRES(_documents.GetLock());
  void CarryOutPlans(ChangePlans& plans) TAVIX_REQUIRES(_documents.GetLock());
  void RemoveGroups() TAVIX_REQUIRES(_documents.GetLock());
  void MergeIntoAll() TAVIX_REQUIRES(_documents.GetLock());
  void MergeIntoUser() TAVIX_REQUIRES(_documents.GetLock());
  void RecordMembers() TAVIX_REQUIRES(_documents.GetLock());
  void Save() TAVIX_REQUIRES(_documents.GetLock());
  void ReportUnchanged() const;
  void Notify();

  StoreDocuments& _documents;
  ISettingsPersister* const _persister;
  const ChangeNotifier& _notifier;
  ChangeRequest& _request;

  RemovedGroups _removed;
  core::IniFile _recorded;           // the new members of the record of deleted groups
  size_t _recordBytes = 0;           // which the record gets, as the account counts them
  std::set<std::string> _different;  // groups of the user settings that hold something else than before
  bool _isDifferent = false;         // there are such groups, but those that only the record takes away
  bool _isUnchanged = false;         // the request was to be saved, and the user settings held it all before
  LateCount _lateCount;              // destroyed first
};

}  // namespace tavix::settings::server
