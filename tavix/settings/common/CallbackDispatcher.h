#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>

#include "tavix/osa/Export.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::common {

// Knows which callbacks subscribed to which groups, and calls each at most once for a change, with its own groups only.
// Subscribing twice adds to the subscription; it can only be taken back as a whole.
//
// Threads: every operation may be called from any thread; callbacks run one at a time. A callback that calls back into
//          its dispatcher gets an exception.
// Locks:   its mutex is held while callbacks run, for the whole of a change unless SetCallsInPieces was called. The
//          subscribers of a large change are found before, under a lock for the index of subscriptions alone, which
//          is released every few microseconds.
// Cost:    a change costs what it is long and whom it concerns, however many others have subscribed.
// Owns:    no callback; each stays valid until it is removed.
// Methods: many, as the same operations exist for a name, for names and for a matcher; what they do is in
//          Subscriptions, SmallChange and ChangeRound.
class TAVIX_EXPORT CallbackDispatcher {
 public:
  CallbackDispatcher();
  ~CallbackDispatcher();

  CallbackDispatcher(const CallbackDispatcher&) = delete;
  CallbackDispatcher& operator=(const CallbackDispatcher&) = delete;

  // A string with '*' is a pattern.
  void AddCallback(IChangeCallback* cb, const std::set<std::string>& groups);
  void AddCallback(IChangeCallback* cb, const GroupNameMatcher& matcher);

  // Calls, in ascending order of their addresses, the callbacks that subscribed to one of the changed groups. The first
  // that throws ends the round; its exception passes through.
  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) const;

  // The same with every group of the document as a changed one.
  void OnChange(const core::IniFile& settings) const;

  // The same two with "gate" held while callbacks run, taken before the dispatcher's own mutex. afterPiece: called with
  // both released, where they are released between two callbacks; may be empty.
  void OnChange(osa::Mutex& gate, const std::set<std::string>& changedGroups, const core::IniFile& settings,
                const std::function<void()>& afterPiece = {}) const TAVIX_EXCLUDES(gate);
  void OnChange(osa::Mutex& gate, const core::IniFile& settings, const std::function<void()>& afterPiece = {}) const
      TAVIX_EXCLUDES(gate);

  // The same for a change of one group, which "changedGroup" holds alone. Asks for no memory: slow, for when there is
  // none.
  void OnChangeOfOne(osa::Mutex& gate, const std::set<std::string>& changedGroup, const core::IniFile& settings) const
      TAVIX_EXCLUDES(gate);

  // Where many callbacks have to be called, others get the mutex about once a millisecond: then subscribers come and
  // go, and other changes are announced, between two callbacks. So a callback may be given an older change's document
  // behind a newer one's: for callbacks that look what the values are now. Before there are subscribers.
  void SetCallsInPieces(bool callsInPieces) { _callsInPieces.store(callsInPieces, std::memory_order_relaxed); }

  // Adds all names and patterns of all subscriptions to "out", which is not cleared. Others wait for a small part of
  // that only.
  void GetAllSubscribedGroups(std::set<std::string>& out) const;

  // The bytes of the names and patterns of all subscriptions together. Waits for nothing.
  size_t CountSubscriptionBytes() const;

  // How many names and patterns all subscriptions have, those of several subscribers counted for each. Likewise.
  size_t CountSubscriptions() const;

  // How many patterns have been compared with names of changed groups so far.
  unsigned long long CountTriedPatterns() const;

  // How many different patterns may be so alike that each of them has to be tried on the same names. 0: any number.
  // Subscriptions are not refused because of it: callers ask before they subscribe.
  void SetMaxAlikePatterns(size_t max) { _maxAlikePatterns.store(max, std::memory_order_relaxed); }
  size_t GetMaxAlikePatterns() const { return _maxAlikePatterns.load(std::memory_order_relaxed); }

  // Whether more patterns than that would be alike with these as well. Waits for no callback.
  bool WouldExceedMaxAlikePatterns(const std::set<std::string>& groups) const;
  bool WouldExceedMaxAlikePatterns(const GroupNameMatcher& matcher) const;

  // Whether a change of these groups, or of the document's, concerns more than "max" subscribers, each counted once for
  // each of its groups, or too many patterns to find that out soon. Waits for no callback.
  bool WouldCallMoreThan(size_t max, const std::set<std::string>& changedGroups) const;
  bool WouldCallMoreThan(size_t max, const core::IniFile& settings) const;

  // Returns once the dispatcher's mutex was free: callbacks come to their end. For a watchdog.
  void Probe() const;

  // Returns once no call of "cb" is under way, and none follows. An unknown callback is ignored.
  void RemoveCallback(IChangeCallback* cb);

 private:
  struct TAVIX_LOCAL State;
  class TAVIX_LOCAL RoundUnderWay;
  class TAVIX_LOCAL CopyUnderWay;

  void Add(IChangeCallback* cb, std::initializer_list<const std::set<std::string>*> groups);
  void Notify(osa::Mutex* gate, const std::set<std::string>& changedGroups, const core::IniFile& settings,
              const std::function<void()>& afterPiece) const;
  void Notify(osa::Mutex* gate, const core::IniFile& settings, const std::function<void()>& afterPiece) const;
  bool CallPiece(osa::Mutex* gate, RoundUnderWay& round, bool mayRestart, const core::IniFile& settings) const;
  template <class Groups, class NameOf>
  bool WouldCallMoreThan(size_t max, const Groups& groups, NameOf nameOf) const;
  void AwaitOthers(osa::Mutex* gate) const;
  bool NotifyAtOnce(osa::Mutex* gate, const std::set<std::string>& changedGroups, const core::IniFile& settings) const;

  const std::unique_ptr<State> _state;  // the mutex, and what it guards
  std::atomic<size_t> _maxAlikePatterns{0};
  std::atomic<bool> _callsInPieces{false};
};

}  // namespace tavix::settings::common
