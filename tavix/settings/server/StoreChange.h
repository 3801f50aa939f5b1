#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ChangeTicket.h"
#include "tavix/settings/server/DeletedGroupsRecord.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/HiddenChange.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/PreparedMerge.h"
#include "tavix/settings/server/SharedPlaces.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

class AmendmentPlan;
class ChangeNotifier;
class ISettingsPersister;

// One change of a store, and the only way to change its documents. A writer fills a ChangeRequest with what differs
// from the other writers; Make does what all have in common, in this order:
//
//   without the lock      the request is prepared
//   under the write lock  what changed in between is matched and tested again; bounds are checked; all memory is asked
//                         for; the persister may refuse it. From here on nothing stops the change: the store gets a
//                         new version, readers in parts are given the names of the groups, both documents are
//                         changed, the record of deleted groups is hidden from readers. What differs is saved
//   behind the lock       the persister learns of a request that changed nothing, subscribers are notified; what was
//                         replaced is destroyed with the object
//
// Threads: one at a time.
// Locks:   "SettingsMutex". It is not held when subscribers are notified.
// Errors:  osa::Exception in a change callback, RefusedChange beyond a bound, std::bad_alloc: then nothing is changed.
//          Those of the persister and of callbacks pass through: then the change stays in memory. Behind one that
//          leaves a save nobody is notified.
// Methods: many, as are the members: each step of the order above is one, for the documents, the record, what is hidden
//          and what is saved.
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

  // Makes an amendment instead, of which nothing is planned yet. choose: called under the lock with the user settings,
  // returns the plan that is made: "early", another sound one, or null; empty: "early". Returns false when the plan
  // contradicts itself, one of its conditions does not hold, or there is none: then nothing is changed and nobody is
  // notified.
  using ChoosePlan = std::function<AmendmentPlan*(const LayerView& userSettings)>;
  [[nodiscard]] static bool Amend(StoreDocuments& documents, ISettingsPersister* persister,
                                  const ChangeNotifier& notifier, AmendmentPlan& early, const ChoosePlan& choose,
                                  const ChangeOrigin& origin, ChangeTicket& ticket) TAVIX_EXCLUDES(documents.GetLock());

  // What a client that asked for the change has to wait for: its own save or, when it changed nothing, the saves of
  // others that it relies on. 0: nothing, or the change was not saved.
  ChangeTicket GetTicket() const { return _ticket; }

  // Replaces the documents, as loading does: no bounds, nothing is saved, nobody is notified. shared: groups of "user"
  // whose keys are in "all" alone.
  static void ReplaceAll(StoreDocuments& documents, core::IniFile all, core::IniFile user, HiddenLayers hidden = {},
                         SharedPlaces&& shared = SharedPlaces()) TAVIX_REQUIRES(documents.GetLock());

  // The same for the user settings alone: what readers see stays as it is.
  static void ReplaceUser(StoreDocuments& documents, core::IniFile user) TAVIX_REQUIRES(documents.GetLock());

 private:
  static void BeginVersion(StoreDocuments& documents);
  static void RequirePatterns(const StoreDocuments& documents, std::ptrdiff_t more) TAVIX_REQUIRES(documents.GetLock());
  static void RequireRoom(const StoreDocuments& documents, AmendmentPlan& plan) TAVIX_REQUIRES(documents.GetLock());
  static void AskPersister(const StoreDocuments& documents, ISettingsPersister& persister, AmendmentPlan& plan,
                           const ChangeOrigin& origin) TAVIX_REQUIRES(documents.GetLock());
  static void Prepare(StoreDocuments& documents, AmendmentPlan& plan) TAVIX_REQUIRES(documents.GetLock());
  static void CarryOut(StoreDocuments& documents, AmendmentPlan& plan) noexcept TAVIX_REQUIRES(documents.GetLock());

  bool MakeUnderLock() TAVIX_REQUIRES(_documents.GetLock());
  void AskPersister() const TAVIX_REQUIRES(_documents.GetLock());
  void PlanRecord() TAVIX_REQUIRES(_documents.GetLock());
  void RequirePatterns() const TAVIX_REQUIRES(_documents.GetLock());
  void RequireRoom() const TAVIX_REQUIRES(_documents.GetLock());
  std::ptrdiff_t CountGrowth() const TAVIX_REQUIRES(_documents.GetLock());
  size_t CountRecordGrowth() const TAVIX_REQUIRES(_documents.GetLock());
  void Prepare() TAVIX_REQUIRES(_documents.GetLock());
  void PrepareSave() TAVIX_REQUIRES(_documents.GetLock());
  void KeepOldSettings() TAVIX_REQUIRES(_documents.GetLock());
  void CarryOut() noexcept TAVIX_REQUIRES(_documents.GetLock());
  void NoteGroups() const noexcept TAVIX_REQUIRES(_documents.GetLock());
  void CarryOutHidden() noexcept TAVIX_REQUIRES(_documents.GetLock());
  void CarryOutPlans(ChangePlans& plans) noexcept TAVIX_REQUIRES(_documents.GetLock());
  void RemoveGroups() noexcept TAVIX_REQUIRES(_documents.GetLock());
  void Save() TAVIX_REQUIRES(_documents.GetLock());
  void FindTicketOfOthers();

  StoreDocuments& _documents;
  ISettingsPersister* const _persister;
  const ChangeNotifier& _notifier;
  ChangeRequest& _request;

  // Made before the documents are changed.
  DeletedGroupsRecord::Change _record;
  PreparedMerge _mergeIntoAll;  // of what is not planned, as the next
  PreparedMerge _mergeIntoUser;
  HiddenChange _hidden;
  std::set<std::string> _different;               // groups of the user settings that hold something else than before
  std::optional<core::IniFile> _before;           // what these held; empty: the persister does not need it
  std::optional<common::GroupNameMatcher> _held;  // the groups of a request that the user settings held all before

  RemovedGroups _removed;
  ChangeTicket _ticket = 0;
  LateCount _lateCount;  // destroyed first
};

}  // namespace tavix::settings::server
