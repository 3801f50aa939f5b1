#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "tavix/osa/Export.h"
#include "tavix/osa/Mutex.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::common {

// Knows who subscribed to which groups, and tells each subscriber of a change at most once, with only its own groups.
// Subscribing twice adds to the subscription; it can only be taken back as a whole.
//
// Threads: every operation may be called from any thread; they run one after the other, callbacks included. A callback
//          that calls back into its dispatcher gets an exception.
// Owns:    no callback; each stays valid until it is removed.
class TAVIX_EXPORT CallbackDispatcher {
 public:
  CallbackDispatcher() : _mutex(nullptr) {}

  // A string with '*' is a pattern.
  void AddCallback(IChangeCallback* cb, const std::set<std::string>& groups);
  void AddCallback(IChangeCallback* cb, const GroupNameMatcher& matcher);

  // Calls, in ascending order of their addresses, the callbacks that subscribed to one of the changed groups. The first
  // that throws ends the round; its exception passes through.
  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) const;

  // The same with every group of the document as a changed one.
  void OnChange(const core::IniFile& settings) const;

  // Adds all names and patterns of all subscriptions to "out", which is not cleared.
  void GetAllSubscribedGroups(std::set<std::string>& out) const;

  // The bytes of the names and patterns of all subscriptions together.
  size_t CountSubscriptionBytes() const;

  // How many different patterns may be so alike that each of them has to be tried on the same names. 0: any number.
  // Subscriptions are not refused because of it: callers ask before they subscribe.
  void SetMaxAlikePatterns(size_t max) { _maxAlikePatterns.store(max, std::memory_order_relaxed); }

  // Whether more patterns than that would be alike with these as well.
  bool WouldExceedMaxAlikePatterns(const std::set<std::string>& groups) const;
  bool WouldExceedMaxAlikePatterns(const GroupNameMatcher& matcher) const;

  // Returns once no call of "cb" is under way, and none follows. An unknown callback is ignored.
  void RemoveCallback(IChangeCallback* cb);

 private:
  void TellSubscribers(const std::set<std::string>& changedGroups, const core::IniFile& settings) const;

  mutable osa::Mutex _mutex;  // guards what follows; held while callbacks run
  std::map<IChangeCallback*, GroupNameMatcher> _callbacks;

  std::atomic<size_t> _maxAlikePatterns{0};
};

}  // namespace tavix::settings::common
