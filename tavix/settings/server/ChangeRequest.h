#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/EarlyMatches.h"
#include "tavix/settings/server/EarlyTest.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tavix/settings/server/UnrestrictedPart.h"

namespace tavix::core {
class IniFile;
}
namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// What a writer wants changed in a store: groups are removed, then values are set. Does the long part of the work
// before the write lock is taken: copies large values, and reads the documents in parts under the read lock. Changes
// nothing; that is StoreChange's work.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
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

  // The steps towards the change.

  // Without the lock. Returns false when the test fails already.
  [[nodiscard]] bool Prepare(const StoreDocuments& documents) TAVIX_EXCLUDES(documents.GetLock());

  // The same for a caller that holds the write lock; for a request that only sets values.
  void PrepareLocked(const StoreDocuments& documents);

  // The change follows. Returns false when the test fails.
  [[nodiscard]] bool BringUpToDate(const StoreDocuments& documents) TAVIX_REQUIRES(documents.GetLock());

  // What is to be done.
  const core::IniFile& GetSettings() const { return *_settings; }
  bool HasRecord() const { return _hasRecord; }  // whether the settings hold the record of deleted groups
  ValueCopies& GetCopies() { return *_copies; }
  const ValueCopies& GetCopies() const { return *_copies; }
  std::set<std::string>& GetRemovedNames() { return _removedNames; }
  const std::set<std::string>& GetRemovedNames() const { return _removedNames; }

  // Null: the request removes no groups, or adds nothing to the record.
  const common::GroupNameMatcher* GetRemovedMatcher() const { return _removedMatcher; }
  const std::set<std::string>* GetMembers() const { return _members; }
  bool IsPersistent() const { return _isPersistent; }

 private:
  const core::IniFile* _settings = nullptr;
  std::optional<UnrestrictedPart> _unrestricted;
  const common::GroupNameMatcher* _removedMatcher = nullptr;
  const std::set<std::string>* _members = nullptr;
  bool _isPersistent = true;

  bool _hasRecord = false;
  std::optional<ValueCopies> _copies;
  std::optional<EarlyTest> _test;
  std::optional<EarlyMatches> _matches;
  std::optional<ChangeRecorder> _recorder;  // from the first part that is read on, until the write lock is held
  std::set<std::string> _removedNames;      // known once the write lock is held
};

}  // namespace tavix::settings::server
