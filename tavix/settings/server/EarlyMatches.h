#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

// The groups of a store's document that a matcher means, found before the write lock is taken, in parts under the read
// lock. Only what changed in between is matched under the write lock. A few names are looked up under it at once.
class EarlyMatches {
 public:
  // matcher: outlives the object.
  EarlyMatches(const common::GroupNameMatcher& matcher, StoreDocuments::Which which);

  StoreDocuments::Which GetWhich() const { return _which; }

  // Whether it takes so long that FindInParts is to be called first.
  bool AreMany() const { return _walk.has_value(); }

  // The lock is not held. From before that call on a ChangeRecorder collects what changes.
  void FindInParts(const StoreDocuments& documents);

  // document: the one that was chosen, while the write lock is held. Once only. changedGroups: since before
  // FindInParts.
  std::set<std::string> Take(const core::IniFile& document, const std::set<std::string>& changedGroups);

 private:
  bool FindPart(const core::IniFile& document, std::string& next);

  const common::GroupNameMatcher& _matcher;
  const StoreDocuments::Which _which;
  std::optional<GroupWalk> _walk;  // none: there are few names to look up
  std::set<std::string> _found;
};

}  // namespace tavix::settings::server
