#pragma once

#include <string>

#include "programs/server/persistence/HistoryEntry.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::daemon {

// Which user settings a request is about: those of groups that match a name or pattern, and what the record of deleted
// groups has of such groups: a recorded pattern matches as it is spelled. A plain value.
class SettingsFilter {
 public:
  // nameOrPattern: empty: all settings.
  explicit SettingsFilter(const std::string& nameOrPattern);

  bool IsForAll() const { return _isForAll; }
  bool Matches(const std::string& name) const;

  // Removes what does not match.
  void Reduce(core::IniFile& settings) const;
  void Reduce(HistoryEntry& entry) const;

 private:
  const bool _isForAll;
  settings::common::GroupNameMatcher _matcher;
};

}  // namespace tavix::daemon
