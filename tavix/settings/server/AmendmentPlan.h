#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/DocumentEdit.h"
#include "tavix/settings/server/EarlyTest.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/RecordEdit.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tavix/settings/server/UnrestrictedPart.h"

namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::server {

struct AmendedGroup;

// What an amendment changes in the documents of a store. Each key that it touches is computed anew from all layers, as
// the next start would do it: restricted settings, then user settings, then the defaults unless the record deletes
// their group. What it touches are the keys that it names and, of groups that it names as a whole, whose defaults come
// or go by the record, or that appear by their defaults alone, all. It changes nothing; that is StoreChange's work.
//
// In order: IsSound; MakeEarly, so that neither a long plan nor long conditions keep readers waiting; then, in one hold
// of the write lock, Make, which has nothing to do unless the store has changed, and what it found.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Methods: many, as are the members: the steps from what the amendment names to what each document loses and gets, each
//          of which leaves its outcome to those behind it.
class AmendmentPlan {
 public:
  // amendment: outlives the object.
  explicit AmendmentPlan(const Amendment& amendment);

  // drop: as that of a StoreAmendment; outlives the object.
  AmendmentPlan(const Amendment& amendment, const core::IniFile& drop);

  AmendmentPlan(const AmendmentPlan&) = delete;
  AmendmentPlan& operator=(const AmendmentPlan&) = delete;

  // False: the amendment contradicts itself.
  [[nodiscard]] bool IsSound() const;

  // False: a condition does not hold, or a recorded pattern hides what is to show again.
  [[nodiscard]] bool MakeEarly(const StoreDocuments& documents) TAVIX_EXCLUDES(documents.GetLock());

  // The same. documents: do not change until the plan is carried out.
  [[nodiscard]] bool Make(const StoreDocuments& documents) TAVIX_REQUIRES_SHARED(documents.GetLock());

  // What it is to change, restricted groups excepted.
  const core::IniFile& GetSet() const { return _set.Get(); }
  const core::IniFile& GetUnset() const { return _unset.Get(); }
  const core::IniFile& GetReplace() const { return _replace.Get(); }
  const core::IniFile& GetDrop() const { return _drop.Get(); }

  // What the documents lose and get.
  struct Edits {
    DocumentEdit all;
    DocumentEdit user;
    DocumentEdit hiddenDefaults;
    DocumentEdit unsaved;
  };
  Edits& GetEdits() { return *_edits; }
  RecordEdit& GetRecord() { return *_record; }

  // Shared groups of the user settings that hold something else then than what readers see, or leave them. They are to
  // be forgotten before the edits are carried out, which set all that they hold.
  const std::set<std::string>& GetUnshared() const { return _unshared; }

  // How many keys the groups get that stay shared; negative: they lose some. The edits of the user settings lack them.
  std::ptrdiff_t CountSharedKeys() const { return _sharedKeys; }

  // By how many bytes the store grows, as its account counts them, without the copies that groups take which are not
  // shared any more; and these copies together with what it hides.
  std::ptrdiff_t CountGrowth(const StoreDocuments& documents) const TAVIX_REQUIRES_SHARED(documents.GetLock());
  std::ptrdiff_t CountHiddenGrowth(const StoreDocuments& documents) const TAVIX_REQUIRES_SHARED(documents.GetLock());

  // What readers see differently: groups that are gone, and those that stay with their new values.
  std::set<std::string>& GetGone() { return _gone; }
  const core::IniFile& GetChanged() const { return _changed; }

  // What is to be saved: groups of the user settings that differ, or that readers see differently; and the members that
  // the record got, when it got members only.
  const std::set<std::string>& GetDifferent() const { return _different; }
  const core::IniFile& GetAddedMembers() const { return _addedMembers; }

  // The groups that it names, when nothing is to be saved: the user settings hold all of it already.
  const std::optional<common::GroupNameMatcher>& GetHeld() const { return _held; }

 private:
  bool IsLong(const std::string& recordGroup) const;
  void Clear();
  bool MakeAnew(const StoreDocuments& documents) TAVIX_REQUIRES_SHARED(documents.GetLock());
  bool Holds(const core::IniFile& all);
  void EditRecord(const StoreDocuments& documents) TAVIX_REQUIRES_SHARED(documents.GetLock());
  bool IsSeenAgain(const StoreDocuments& documents) const TAVIX_REQUIRES_SHARED(documents.GetLock());
  void FindTouched(const StoreDocuments& documents) TAVIX_REQUIRES_SHARED(documents.GetLock());
  void AddDeletedOrBack(const StoreDocuments& documents) TAVIX_REQUIRES_SHARED(documents.GetLock());
  void SaveRecord(const std::string& group);
  void FindSaved(const std::string& recordGroup);
  AmendedGroup MakeGroup(const StoreDocuments& documents, const std::string& name) const
      TAVIX_REQUIRES_SHARED(documents.GetLock());
  void EditGroup(AmendedGroup& group);
  void EditKey(AmendedGroup& group, const std::string& key);
  void EditUser(const AmendedGroup& group, const std::set<std::string>& keys);
  void EditUserKey(const AmendedGroup& group, const std::string& key);
  void Unshare(const AmendedGroup& group);
  void EndGroup(const AmendedGroup& group);
  void EndHidden(const AmendedGroup& group);

  const EarlyTest _present;
  const EarlyTest _absent;
  const UnrestrictedPart _set;
  const UnrestrictedPart _unset;
  const UnrestrictedPart _replace;
  const UnrestrictedPart _drop;

  std::optional<ChangeRecorder> _recorder;     // of long conditions, until the last Make
  std::set<std::string> _changedByOthers;      // groups, since the conditions were tested
  std::optional<unsigned long long> _version;  // of the store that the plan is for; none: nothing is planned
  std::optional<RecordEdit> _record;
  std::set<std::string> _whole;    // groups of which every key is touched
  std::set<std::string> _keyed;    // further groups, of which only named keys are
  std::set<std::string> _deleted;  // of all these, those that the record deletes once the plan is carried out
  std::optional<Edits> _edits;
  size_t _sharedBefore = 0;  // groups, of the store that the plan is for
  std::set<std::string> _unshared;
  std::ptrdiff_t _sharedKeys = 0;
  size_t _copiedBytes = 0;
  std::set<std::string> _gone;
  core::IniFile _changed;
  std::set<std::string> _different;
  core::IniFile _addedMembers;
  std::optional<common::GroupNameMatcher> _held;
};

}  // namespace tavix::settings::server
