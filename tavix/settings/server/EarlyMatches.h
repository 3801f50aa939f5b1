#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/osa/ReadWriteLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/GroupWalk.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

// The groups of a store's document that a matcher means, found before the write lock is taken, in parts under the read
// lock. Only what changed in between is matched under the write lock. A few names are looked up under it at once.
class EarlyMatches {
 public:
  // All outlive the object. lock: the store's, not held.
  EarlyMatches(const common::GroupNameMatcher& matcher, const core::IniFile& document, osa::ReadWriteLock& lock,
               ChangeRecorders& recorders);

  // The caller holds the write lock. Once only.
  std::set<std::string> Take();

 private:
  void FindInParts(osa::ReadWriteLock& lock);
  bool FindPart(std::string& next);

  const common::GroupNameMatcher& _matcher;
  const core::IniFile& _document;
  std::optional<GroupWalk> _walk;  // none: nothing was looked for yet
  std::optional<ChangeRecorder> _recorder;
  std::set<std::string> _found;
};

}  // namespace tavix::settings::server
