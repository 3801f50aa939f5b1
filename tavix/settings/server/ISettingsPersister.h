#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeTicket.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

class SettingsCombiner;
struct PlannedChange;

// Where a store's settings come from and where the user's go. The hosting program supplies it.
//
// A change is saved through SaveChange. A persister that only wants to save less than everything overrides
// SaveChangedGroups instead, to which it leads. What it returns goes up through the store to the connection that asked
// for the change, and to IClientOutput: a host may so hold that connection's output until the change is durable.
// Threads: the store saves one document at a time, under its write lock. LoadDefaultSettings may run on several threads
//          at once, and beside a save: every restore loads the defaults anew.
// Errors:  exceptions pass through the store to the caller. One that leaves a save leaves the change in
//          memory, announced to nobody.
class TAVIX_EXPORT ISettingsPersister {
 public:
  virtual ~ISettingsPersister() = default;

  // Load every source of defaults, or of the user's saved settings, through "combiner".
  virtual void LoadDefaultSettings(SettingsCombiner& combiner) = 0;
  virtual void LoadUserSettings(SettingsCombiner& combiner) = 0;

  // userSettings: the whole user layer, valid during the call only.
  virtual void SaveUserSettings(const core::IniFile& userSettings) = 0;

  // The same, knowing which groups of the layer came, went or hold something else than before, or are seen otherwise
  // though the layer holds the same of them. Called for every change that is to be saved, even when no group differs.
  // Returns the change's ticket; 0: nothing has to wait for it.
  virtual ChangeTicket SaveChangedGroups(const core::IniFile& userSettings,
                                         const std::set<std::string>& changedGroups) {
    static_cast<void>(changedGroups);
    SaveUserSettings(userSettings);
    return 0;
  }

  // The same for a change that also made groups larger: "added" holds the settings that they got. Nothing else of these
  // groups is different, unless they are changed groups, too. Called instead, with an "added" that is not empty.
  virtual ChangeTicket SaveAddedSettings(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
                                         const core::IniFile& added) {
    std::set<std::string> groups = changedGroups;
    for (const auto& group : added) groups.insert(group.first);
    return SaveChangedGroups(userSettings, groups);
  }

  // Returns the ticket of the last change of these groups that is not durable yet; 0: all are. Called for a request
  // that asked the user layer for what it held already: its client relies on changes of others. Not under the store's
  // lock as a rule.
  virtual ChangeTicket FindLastTicket(const common::GroupNameMatcher& groups) {
    static_cast<void>(groups);
    return 0;
  }

  // All that is known of a change that is to be saved; valid during the call only.
  struct SavedChange {
    LayerView userSettings;                      // the three as above
    const std::set<std::string>& changedGroups;  //
    const core::IniFile& added;                  // may be empty
    const ChangeOrigin& origin;

    // What the changed groups held before, whole; a group that was not there is missing. Of groups that "added" alone
    // names those are in it that were there without a key. Null: nobody asked for it.
    const core::IniFile* before = nullptr;
  };

  // What the store calls for every change that is to be saved. Here it calls one of the two operations above.
  virtual ChangeTicket SaveChange(const SavedChange& change) {
    const core::IniFile& userSettings = change.userSettings.GetDocument();
    return change.added.IsEmpty() ? SaveChangedGroups(userSettings, change.changedGroups)
                                  : SaveAddedSettings(userSettings, change.changedGroups, change.added);
  }

  // Whether SaveChange is to be given what was there before; that costs a copy of the changed groups. Always the same.
  virtual bool NeedsOldSettings() const { return false; }

  // Called for every change under the store's write lock, before anything is changed. From here on nothing but what
  // this throws stops the change, and SaveChange follows if it is saved. RefusedChange: it is not carried out.
  virtual void PrepareChange(const PlannedChange& change) { static_cast<void>(change); }

  // Whether the user settings have to be one document, as the operations above that are given an IniFile need it. Not
  // so where SaveChange reads them as a LayerView: then groups that readers see as the user's file has them are in
  // memory once, from loading until they change. Always the same.
  virtual bool NeedsWholeUserSettings() const { return true; }
};

}  // namespace tavix::settings::server
