#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/DocumentPlan.h"
#include "tavix/settings/server/EarlyMatches.h"
#include "tavix/settings/server/EarlyTest.h"
#include "tavix/settings/server/HiddenChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tavix/settings/server/UnrestrictedPart.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// The plans of a long change, and what they leave to do because others changed these groups in the meantime.
struct ChangePlans {
  DocumentPlan all{StoreDocuments::Which::kAll};
  DocumentPlan user{StoreDocuments::Which::kUser};  // not made when user settings are kept
  HiddenChange hidden;
  core::IniFile lateSettings;
  std::set<std::string> lateNames;
};

// What a writer wants changed in a store: groups are removed, then values are set. Does the long part of the work
// before the write lock is taken: copies large values, and reads the documents in parts under the read lock. Changes
// nothing; that is StoreChange's work.
//
// Threads: one at a time.
// Errors:  std::bad_alloc, and RefusedChange for what is larger than the store may be.
// Members: many; they are the request, then what each step leaves for the next one.
class ChangeRequest {
 public:
  ChangeRequest() = default;

  ChangeRequest(const ChangeRequest&) = delete;
  ChangeRequest& operator=(const ChangeRequest&) = delete;

  // What the change is; each once at most. What is passed in outlives the object.

  // The change is made only if readers see all of these values.
  void SetTest(const core::IniFile& test) { _test.emplace(test); }

  // Removes the matching groups that readers see, restricted groups excepted. "members", names and patterns, are added
  // to the record of deleted groups.
  void RemoveVisible(const common::GroupNameMatcher& matcher, const std::set<std::string>& members);

  // Removes the matching groups of the user settings, restricted groups and the record of deleted groups included.
  void RemoveUser(const common::GroupNameMatcher& matcher);

  // Sets values. Unrestricted: restricted groups are left out.
  void Merge(const core::IniFile& settings) { _settings = &settings; }
  void MergeUnrestricted(const core::IniFile& settings) { _settings = &_unrestricted.emplace(settings).Get(); }

  // The user settings stay as they are: only what readers see is changed.
  void KeepUserSettings() { _isPersistent = false; }

  // Who asks for it; the persister is given that. By default the store's host.
  void SetOrigin(const ChangeOrigin& origin) { _origin = origin; }

  // The steps towards the change.

  // Without the lock; again after IsOutdated. Returns false when the test fails already. Of the documents only shared
  // groups become own ones.
  [[nodiscard]] bool Prepare(StoreDocuments& documents) TAVIX_EXCLUDES(documents.GetLock());

  // The same for a caller that holds the write lock: nothing is planned.
  void PrepareLocked(const StoreDocuments& documents);

  // The write lock is held. Whether so much changed since Prepare that it is better done again.
  [[nodiscard]] bool IsOutdated();

  // The change follows. Returns false when the test fails.
  [[nodiscard]] bool BringUpToDate(const StoreDocuments& documents) TAVIX_REQUIRES(documents.GetLock());

  // What is to be done.
  const core::IniFile& GetSettings() const { return *_settings; }
  bool HasRecord() const { return _hasRecord; }  // whether the settings hold the record of deleted groups
  size_t GetBytes() const { return _bytes; }     // of the settings, as the store's account counts them
  std::set<std::string>& GetRemovedNames() { return _removedNames; }
  const std::set<std::string>& GetRemovedNames() const { return _removedNames; }

  // Of these what is not planned: all, or what others changed since the plans were made.
  const core::IniFile& GetUnplannedSettings() const { return _plans ? _plans->lateSettings : *_settings; }
  const std::set<std::string>& GetUnplannedNames() const { return _plans ? _plans->lateNames : _removedNames; }

  // Null: the change is short.
  ChangePlans* GetPlans() { return _plans ? &*_plans : nullptr; }
  const ChangePlans* GetPlans() const { return _plans ? &*_plans : nullptr; }

  // The groups that others changed since the plans were made.
  const std::set<std::string>& GetChangedGroups() const { return _changedGroups; }

  // Null: the request removes no groups, or adds nothing to the record.
  const common::GroupNameMatcher* GetRemovedMatcher() const { return _removedMatcher; }
  const std::set<std::string>* GetMembers() const { return _members; }
  bool IsPersistent() const { return _isPersistent; }
  const ChangeOrigin& GetOrigin() const { return _origin; }

 private:
  void RequireRoom(const StoreDocuments& documents) const;
  void Plan(const StoreDocuments& documents) TAVIX_EXCLUDES(documents.GetLock());
  void TakeChangedGroups();

  const core::IniFile* _settings = nullptr;
  std::optional<UnrestrictedPart> _unrestricted;
  const common::GroupNameMatcher* _removedMatcher = nullptr;
  const std::set<std::string>* _members = nullptr;
  bool _isPersistent = true;
  ChangeOrigin _origin;

  bool _hasRecord = false;
  size_t _bytes = 0;
  std::optional<EarlyTest> _test;
  std::optional<EarlyMatches> _matches;
  std::optional<ChangeRecorder> _recorder;  // from the first part that is read on, until the write lock is held
  std::optional<ChangePlans> _plans;
  std::set<std::string> _changedGroups;
  std::set<std::string> _removedNames;  // known once the write lock is held
};

}  // namespace tavix::settings::server
