#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/DocumentTally.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

// What a large change does to one document of a store, planned before the write lock is taken: groups are removed, then
// values are set. Under the lock places are known and values ready, so that a known group costs an exchange of two
// pointers; a change that leaves only few groups exchanges the whole document.
//
// Groups that others change in the meantime are withdrawn from the plan: the caller changes them.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Methods: some more than twenty: the steps before the lock, those under it, and those that take groups back.
class DocumentPlan {
 public:
  explicit DocumentPlan(StoreDocuments::Which which) : _which(which) {}

  DocumentPlan(const DocumentPlan&) = delete;
  DocumentPlan& operator=(const DocumentPlan&) = delete;

  // Plans anew, in parts under the read lock. From before that call on a ChangeRecorder collects what changes.
  // removed: their strings outlive the plan.
  void Make(const StoreDocuments& documents, const core::IniFile& settings, const std::set<std::string>& removed)
      TAVIX_EXCLUDES(documents.GetLock());

  // Adds the other removed groups to those that differ, without any of them counting as a difference.
  void AddAllRemoved(const std::set<std::string>& removed);

  // Takes groups that others changed since before Make out of the plan. Once, while the write lock is held.
  void Withdraw(const std::set<std::string>& changedGroups);

  // document: the one that was chosen, while the write lock is still held. changedGroups: those that were withdrawn;
  // they are left as they are. Once only. Can't fail: all memory was asked for before.
  void CarryOut(core::IniFile& document, DocumentTally& tally, const std::set<std::string>& changedGroups) noexcept;

  // How many bytes the document gets, as the store's account counts them, before what it loses is taken off: both of
  // the following, as they are in the end.
  size_t GetBytes() const { return _bytes; }
  const core::IniFile& GetReplaced() const { return _values; }
  const core::IniFile& GetRemoved() const { return _removed; }

  // The groups that stay but are moved: places that others know of them are of no use any more.
  const std::set<std::string>& GetMoved() const { return _survivors; }

  // The groups that hold something else than before, but those that were withdrawn.
  std::set<std::string>& GetDifferent() { return _different; }
  bool HasDifference() const { return _different.size() > _addedCount; }

 private:
  enum class Step {
    kNothing,    // the group holds all of it, or was withdrawn
    kInsert,     // the group is new
    kExchange,   // the prepared keys take the place of the group's
    kMergeKeys,  // the group has many more keys than the change: each is looked up
  };

  struct Setting {
    const std::string* name;
    core::IniFile::iterator values;  // the group in _values
    Step step;
    core::IniFile::const_iterator place;  // the group in the document; of a new one, the next group there
    std::string next;                     // of a new one: that group's name; empty at the end
  };

  struct Removal {
    const std::string* name;
    core::IniFile::const_iterator place;
    bool isWithdrawn;
  };

  static core::IniFile::const_iterator FindPlace(const core::IniFile::GroupMap& groups, const Setting& setting,
                                                 const std::set<std::string>& changedGroups);

  void PlanSetting(const core::IniFile& document, core::IniFile::iterator values, bool isRemoved);
  void PlanRemoval(const core::IniFile& document, const std::string& name);
  void FindSurvivors(const StoreDocuments& documents, const std::set<std::string>& removed);
  Setting* FindSetting(const std::string& name);
  Removal* FindRemoval(const std::string& name);
  void Withdraw(const std::string& name);
  void Set(core::IniFile::GroupMap& groups, DocumentTally& tally, const std::set<std::string>& changedGroups);
  void Remove(core::IniFile::GroupMap& groups, DocumentTally& tally);
  void ExchangeAll(core::IniFile& document, DocumentTally& tally, const std::set<std::string>& changedGroups);
  void KeepSurvivors(core::IniFile::GroupMap& before);

  const StoreDocuments::Which _which;
  core::IniFile _values;           // for the document, then what they replaced
  std::vector<Setting> _settings;  // one for each group of _values, ascending
  std::vector<Removal> _removals;  // of groups that get no values; ascending
  core::IniFile _removed;
  std::set<std::string> _different;
  size_t _addedCount = 0;    // of the different groups, those that AddAllRemoved added
  size_t _removedCount = 0;  // of the document's groups, with those that get values
  bool _leavesFew = false;
  std::set<std::string> _survivors;  // the groups that stay, when they are few
  size_t _bytes = 0;
  DocumentTally _tally;  // of _values
};

}  // namespace tavix::settings::server
