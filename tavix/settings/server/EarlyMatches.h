#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

// The groups of a store's document that a matcher means, without restricted groups of what readers see, found before
// the write lock is taken, in parts under the read lock. Only what changed in between is matched under the write lock.
// A few names are looked up under it at once.
//
// Threads: one, which makes the change.
class EarlyMatches {
 public:
  // matcher: outlives the object.
  EarlyMatches(const common::GroupNameMatcher& matcher, StoreDocuments::Which which);

  StoreDocuments::Which GetWhich() const { return _which; }

  // Whether it takes so long that FindInParts is to be called first.
  bool AreMany() const;

  // Finds them anew. The lock is not held. From before that call on a ChangeRecorder collects what changes.
  void FindInParts(const StoreDocuments& documents) TAVIX_EXCLUDES(documents.GetLock());

  // What FindInParts found. The strings stay where they are until it is called again.
  const std::set<std::string>& GetFound() const { return _found; }

  // document: the one that was chosen, while the write lock is held. Once only. changedGroups: since before
  // FindInParts.
  std::set<std::string> Take(const core::IniFile& document, const std::set<std::string>& changedGroups);

 private:
  bool IsRemovable(const std::string& name) const;
  bool FindPart(const core::IniFile& document, std::string& next);

  const common::GroupNameMatcher& _matcher;
  const StoreDocuments::Which _which;
  std::optional<GroupWalk> _walk;  // none: nothing was found yet
  std::set<std::string> _found;
  std::set<std::string> _lost;  // found, and gone since then
};

}  // namespace tavix::settings::server
