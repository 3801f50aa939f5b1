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

class NoticeRound;

// The memory that a notification needs at least. It is asked for before the change is made, so that no change stays
// without its notification.
//
// Threads: one at a time.
class NotificationReserve {
 public:
  // settings: those of the change. Throws std::bad_alloc.
  explicit NotificationReserve(const core::IniFile& settings);

  // A set of that name alone, which is as long as one of the settings' groups at most. Valid until the next call.
  const std::set<std::string>& GetSetOf(const std::string& name) noexcept;

 private:
  std::set<std::string> _set;
};

// Notifies a store's subscribers of its changes. Connections among them are sent their notices behind the calls, once
// the locks are released.
//
// Threads: any. Callbacks run on the thread that calls Notify.
// Locks:   the notification gate, then the dispatcher's mutex; both are held while callbacks run. The caller of Notify
//          holds no lock.
// Errors:  an exception of a callback ends the notification and passes through. Memory that runs out does not:
//          callbacks are then called, again maybe, for one group after the other.
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

  // The groups "removed" and those of the settings have changed. settings: what callbacks are given. removed: used up.
  // round, reserve: made before the change.
  void Notify(NoticeRound& round, NotificationReserve& reserve, std::set<std::string>& removed,
              const core::IniFile& settings) const TAVIX_EXCLUDES(_gate);

 private:
  void NotifyOfAll(NoticeRound& round, std::set<std::string>& removed, const core::IniFile& settings) const
      TAVIX_EXCLUDES(_gate);
  void NotifyOneByOne(NotificationReserve& reserve, std::set<std::string>& removed, const core::IniFile& settings) const
      TAVIX_EXCLUDES(_gate);

  common::CallbackDispatcher _dispatcher;
  mutable osa::Mutex _gate{"notification gate"};
};

}  // namespace tavix::settings::server
