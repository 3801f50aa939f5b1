#pragma once

#include <set>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings {

// Is called when settings change that it subscribed to. What its document holds, and in which order calls come:
//
//     MultiThreaded modes  the named groups whole, as they were when the server wrote the notice. Calls come in the
//                          order of the notices, so that none shows an older value than the one before it.
//     Local mode           the named groups whole, as they are now. Of changes that several threads make at once, calls
//                          may come in another order than the changes.
//     SettingsManager      a direct subscriber gets the values of the request that made the change, not whole groups;
//                          of an overwrite or restore the groups that it set, of an amendment the values that readers
//                          see differently. Calls come one at a time, but of changes that several threads make at once
//                          in any order: a subscriber that wants the newest values reads the store.
//
// A client is called for its own changes, too.
//
// Threads: calls come on the thread that made or received the change, one at a time from one store or client; OnChange
//          says what may be called from there.
class TAVIX_EXPORT IChangeCallback {
 public:
  virtual ~IChangeCallback() = default;

  // changedGroups: those of the changed groups that this callback subscribed to, never empty. settings: see above; it
  // may hold other groups, too, and a group that is named but not in it no longer exists. Both are valid during the
  // call only.
  //
  // Runs on the thread that made or received the change, with the notifying dispatcher's mutex held: it may read
  // settings, but must not subscribe, unsubscribe or change settings. What it throws ends the notification.
  virtual void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) = 0;
};

}  // namespace tavix::settings
