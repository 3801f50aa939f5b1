#pragma once

#include <string>

#include "programs/server/history/SettingsFilter.h"
#include "programs/server/persistence/HistoryEntry.h"
#include "tavix/settings/server/StoreAmendment.h"

namespace tavix::daemon {

// What a rollback changes in the user settings: all that is to be different, as an entry of the history has it, and the
// amendment that makes it so. Of what the filter does not match, and of restricted groups, it takes nothing.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
class RollbackPlan {
 public:
  // filter: outlives the plan.
  explicit RollbackPlan(const SettingsFilter& filter) : _filter(filter) {}

  void Clear();

  // Adds a setting that is to become what it was then, if that differs. key: null for the group itself, which is there
  // without keys. now, then: null: it is not there; of a group the text does not count.
  void Add(const std::string& group, const std::string* key, const std::string* now, const std::string* then);

  bool IsEmpty() const { return _difference.was.IsEmpty() && _difference.is.IsEmpty(); }

  // Has "was" and "is" alone.
  const HistoryEntry& GetDifference() const { return _difference; }

  settings::server::StoreAmendment MakeAmendment() const;

 private:
  bool Concerns(const std::string& group, const std::string* key, const std::string* now,
                const std::string* then) const;

  const SettingsFilter& _filter;
  HistoryEntry _difference;
};

}  // namespace tavix::daemon
