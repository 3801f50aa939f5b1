#pragma once

#include <set>
#include <string>

#include "tavix/osa/Mutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/CallbackDispatcher.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

// Notifies a store's subscribers of its changes. Connections among them are sent their notices behind the calls, once
// the locks are released.
//
// Threads: any. Callbacks run on the thread that calls Notify.
// Locks:   the notification gate, then the dispatcher's mutex; both are held while callbacks run. The caller of Notify
//          holds no lock.
// Errors:  an exception of a callback ends the notification and passes through.
class ChangeNotifier {
 public:
  ChangeNotifier() = default;

  ChangeNotifier(const ChangeNotifier&) = delete;
  ChangeNotifier& operator=(const ChangeNotifier&) = delete;

  common::CallbackDispatcher& GetDispatcher() { return _dispatcher; }
  const common::CallbackDispatcher& GetDispatcher() const { return _dispatcher; }
  osa::Mutex& GetGate() const TAVIX_RETURN_CAPABILITY(_gate) { return _gate; }

  // Throws osa::Exception on a thread that runs a change callback: a change is better refused before it is made than
  // when it is to be announced.
  void RefuseInCallback() const;

  // settings: what callbacks are given. Without names, each group of the settings has changed.
  void Notify(const std::set<std::string>& changedGroups, const core::IniFile& settings) const TAVIX_EXCLUDES(_gate);
  void Notify(const core::IniFile& settings) const TAVIX_EXCLUDES(_gate);

 private:
  common::CallbackDispatcher _dispatcher;
  mutable osa::Mutex _gate{"notification gate"};
};

}  // namespace tavix::settings::server
