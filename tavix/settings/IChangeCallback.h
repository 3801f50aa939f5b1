#pragma once

#include <set>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings {

// Is told when settings change that it subscribed to.
class TAVIX_EXPORT IChangeCallback {
 public:
  virtual ~IChangeCallback() = default;

  // changedGroups: those of the changed groups that this callback subscribed to, never empty. settings: holds at least
  // their new values; a group that is named but not in it no longer exists. Both are valid during the call only.
  //
  // Runs on the thread that made or received the change, with the notifying dispatcher's mutex held: it may read
  // settings, but must not subscribe, unsubscribe or change settings. What it throws ends the notification.
  virtual void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) = 0;
};

}  // namespace tavix::settings
