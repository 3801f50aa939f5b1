#pragma once

#include <atomic>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/osa/Mutex.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/CallbackDispatcher.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/BetweenParts.h"
#include "tavix/settings/server/ChangeTicket.h"
#include "tavix/settings/server/StoreSizes.h"

namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::server {

class ChangeNotifier;
class IIncludeFilter;
class IRestrictedSettingsLoader;
class ISettingsPersister;
class ISettingsSerializer;
class LayerView;
class SettingsCombiner;
class StoreDocuments;
struct ChangeOrigin;
class StoreLoader;
struct StoreAmendment;

// The one store of settings of a process. What readers see, the winner first:
//
//     restricted settings  what the restricted loader brings; clients never write restricted groups
//     user settings        what clients wrote; the only layer that is saved
//     deleted groups       recorded in the user settings when a client overwrites; take a whole default group away
//     defaults             read through the persister
//
// Threads: every operation may be called from any thread. Callbacks run on the thread that made the change, after
//          "SettingsMutex" is released, one change at a time; they may read the store and must not change it: a
//          callback that tries gets an exception, and nothing is changed. Changes that several threads make at once
//          may be announced in another order: a subscriber that wants the newest values reads the store.
// Locks:   "SettingsMutex" guards both documents; it is never held while the gate or a dispatcher's mutex is taken. The
//          notification gate comes first of all, then the dispatcher's mutex.
// Owns:    nothing that is passed in; persister, loader and filter outlive the store.
// Methods: many, as it is the one door to the store for hosts: each is a few lines over the classes that do the work.
// Errors:  those of persister, loader, filters and documents pass through. A save that fails keeps the change in memory
//          and notifies nobody. Of its own only RefusedChange, by changes of a store that was given a bound, and
//          std::bad_alloc: both change nothing.
class TAVIX_EXPORT SettingsManager {
 public:
  using BetweenParts = server::BetweenParts;
  using Sizes = StoreSizes;

  // Merge flag: change only what readers see; the user settings, and so the saved copy, stay as they are.
  static constexpr unsigned int kNoPersist = 1;

  // The user settings' record of what clients overwrote. Never seen by readers.
  static constexpr char kDeletedGroups[] = "TavixSettings/Data/DeletedGroups";

  // An empty store that never loads or saves anything.
  SettingsManager();

  // Loads the store. deferLoad: leave that to a later LoadSettings, from any thread; until then every reader and writer
  // waits. All three may be null; but a store made with a null persister here is never unlocked, deferred or not: for a
  // store without one there is the constructor above.
  SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                  IIncludeFilter* includeFilter, bool deferLoad);

  // Unsubscribes nobody and saves nothing.
  ~SettingsManager();

  SettingsManager(const SettingsManager&) = delete;
  SettingsManager& operator=(const SettingsManager&) = delete;

  // Builds both documents and releases the write lock of a constructor that deferred this. A call that throws leaves
  // the store unlocked and empty; the next one takes the lock itself and starts afresh. Does nothing without a
  // persister.
  void LoadSettings();

  // The user layer alone; the caller holds the write lock.
  void LoadUserSettings();

  // Adds the store's filters: the caller's own first, then the one for load priorities.
  void ConfigureSettingsCombiner(SettingsCombiner& combiner) const;

  // Add the matching groups that readers see to "out", which is not cleared.
  void GetGroups(core::IniFile& out, const common::GroupNameMatcher& matcher) const;
  void GetGroups(core::IniFile& out, const std::string& nameOrPattern) const;

  // One value that readers see; none when it is not set.
  std::optional<std::string> FindValue(const std::string& group, const std::string& key) const;

  // Writes the matching groups while no writer can change them.
  void WriteGroups(std::ostream& os, const common::GroupNameMatcher& matcher,
                   const ISettingsSerializer& serializer) const;

  // The same for a thread that must not be kept for long: false, and what was written is of no use, when more than
  // about "maxWork" groups had to be visited, or the text has more than some 256 bytes for each of these. Patterns that
  // are tried on a group count in part. It waits for a writer as every reader does.
  [[nodiscard]] bool TryWriteGroups(std::ostream& os, const common::GroupNameMatcher& matcher,
                                    const ISettingsSerializer& serializer, size_t maxWork) const;

  // The same bytes, of one state that the store was in during the call, but writers wait for a short part only: parts
  // whose groups changed meanwhile are made again, the last of them in one go. "os" is written to once all is made.
  // The functions may be empty. A serializer that can't write single groups writes all in one go.
  void WriteGroupsInParts(std::ostream& os, const common::GroupNameMatcher& matcher,
                          const ISettingsSerializer& serializer, const BetweenParts& between) const;

  // Write settings text: the user layer with its bookkeeping, or what readers see.
  void DumpUserSettings(std::ostream& os) const;
  void DumpAllSettings(std::ostream& os) const;

  // In parts, as WriteGroupsInParts.
  void DumpUserSettingsInParts(std::ostream& os, const BetweenParts& between) const;
  void DumpAllSettingsInParts(std::ostream& os, const BetweenParts& between) const;

  // Shows the user layer with its bookkeeping to "reader" while no writer can change it. The reader calls no operation
  // of the store.
  void ReadUserSettings(const std::function<void(const LayerView&)>& reader) const;

  // Costs the same however much there is.
  Sizes GetSizes() const;

  // The bytes of the names of all groups that readers see. Takes no lock.
  size_t CountNameBytes() const;

  // Another number, which no store ever had before, once anything that readers see may have changed. Asked before and
  // after a read, it shows whether something may have changed meanwhile.
  unsigned long long GetVersion() const;

  // Bounds; 0, as at first: none. Loading passes any. A change that would pass one is not carried out: it throws
  // RefusedChange. What does not make the store larger is carried out beyond its bound, too. From any thread.
  void SetMaxBytes(size_t bytes);            // of what GetApproximateBytes counts
  void SetMaxDeletedPatterns(size_t count);  // in the record of deleted groups; names may be any number

  // About how much memory the layers take. Takes no lock; lags behind a change for a moment.
  size_t GetApproximateBytes() const;

  // About how much a document takes. O(keys).
  static size_t CountApproximateBytes(const core::IniFile& document);

  // The operations that follow change the store. ticket: gets the ticket of the change, as the persister gave it, for
  // callers that must not show the change before it is durable; 0: nothing has to be waited for. origin: who asked for
  // the change; goes to the persister. Without it that is the store's host.

  // Sets values, restricted groups excepted. Every group named counts as changed, even when no value differed, and
  // callbacks are given the values of this request.
  void MergeSettings(const core::IniFile& settings, unsigned int flags);
  void MergeSettings(const core::IniFile& settings, unsigned int flags, ChangeTicket& ticket);
  void MergeSettings(const core::IniFile& settings, unsigned int flags, const ChangeOrigin& origin,
                     ChangeTicket& ticket);

  // Merges "settings" if readers see every value of "test", as one step. Returns whether it did; if not, nobody is
  // notified.
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings);
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings, ChangeTicket& ticket);
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings, const ChangeOrigin& origin,
                    ChangeTicket& ticket);

  // Changes user settings if conditions hold, as one step. Of each key that it names, and of all keys of groups that it
  // names as a whole, readers see then what the next start would show; no file is read. Announced are the groups that
  // readers see differently, with their new values. Returns false when it is not made, as its own contract says.
  bool Amend(const Amendment& amendment);
  bool Amend(const Amendment& amendment, const ChangeOrigin& origin, ChangeTicket& ticket);
  bool Amend(const StoreAmendment& amendment, const ChangeOrigin& origin, ChangeTicket& ticket);

  // The same where the amendment depends on the user settings, which others change meanwhile. choose: called under the
  // write lock with the user layer, before anything is changed; not called when "early" is not to be made. It returns
  // the amendment that is made: "early", which is planned before the lock is taken, another one, which outlives the
  // call, or null for none: then false is returned. It calls no operation of the store. What it throws passes through.
  using ChooseAmendment = std::function<const StoreAmendment*(const LayerView& userSettings)>;
  bool AmendAsChosen(const StoreAmendment& early, const ChooseAmendment& choose, const ChangeOrigin& origin,
                     ChangeTicket& ticket);

  // Replaces whole groups: those that match "groups" go, then "settings" is merged. What was asked to go is recorded,
  // so that its defaults do not come back at the next start. Callbacks learn of a group that went by not finding it in
  // the document they are given. Restricted groups stay. Always saved.
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings);
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings, ChangeTicket& ticket);
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings, const ChangeOrigin& origin,
                         ChangeTicket& ticket);
  void OverwriteSettings(const std::string& group, const core::IniFile& settings);

  // Brings defaults, read anew, back for matching groups, as user settings: they are pinned to the defaults of this
  // moment. Matching user groups without defaults disappear. Does nothing at all without a persister.
  void RestoreToDefaults(const common::GroupNameMatcher& matcher);
  void RestoreToDefaults(const common::GroupNameMatcher& matcher, ChangeTicket& ticket);
  void RestoreToDefaults(const common::GroupNameMatcher& matcher, const ChangeOrigin& origin, ChangeTicket& ticket);

  // Subscriptions of one callback add up, and end only as a whole. Unsubscribe returns once no call of "cb" is under
  // way.
  void Subscribe(IChangeCallback* cb, const common::GroupNameMatcher& matcher);
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups);
  void Subscribe(IChangeCallback* cb, const std::string& nameOrPattern);
  void Unsubscribe(IChangeCallback* cb);

  // Adds the names and patterns of all subscribers to "out".
  void GetAllSubscribedGroups(std::set<std::string>& out) const;

  // For questions about the subscriptions.
  const common::CallbackDispatcher& GetDispatcher() const;

  // CallbackDispatcher::SetMaxAlikePatterns and SetCallsInPieces, before the store has subscribers.
  void SetMaxAlikePatterns(size_t max);
  void SetCallsInPieces(bool callsInPieces);

  // Held during every notification. It comes before every other lock: a thread that needs a lock that callbacks take,
  // and then the dispatcher's, takes this one before both.
  osa::Mutex& GetNotificationGate() const;

  // The merge itself; the caller holds the write lock, filters and notifies.
  void PerformMergeUnlocked(const core::IniFile& settings, unsigned int flags);

 private:
  SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                  IIncludeFilter* includeFilter);

  ISettingsPersister* const _persister;  // may be null
  const std::unique_ptr<StoreLoader> _loader;
  const std::unique_ptr<StoreDocuments> _documents;
  const std::unique_ptr<ChangeNotifier> _notifier;
  std::atomic<bool> _isLockedToLoad{false};  // the constructor's lock waits for LoadSettings
};

}  // namespace tavix::settings::server
