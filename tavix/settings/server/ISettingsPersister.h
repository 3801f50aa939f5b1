#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

class SettingsCombiner;

// Where a store's settings come from and where the user's go. The hosting program supplies it.
//
// A change is saved through SaveChangedGroups, which a persister overrides when it can save less than everything.
// Threads: the store saves one document at a time, under its write lock. LoadDefaultSettings may run on several threads
//          at once, and beside a save: every restore loads the defaults anew.
// Errors:  exceptions pass through the store to whoever made the call. One that leaves a save leaves the change in
//          memory, announced to nobody.
class TAVIX_EXPORT ISettingsPersister {
 public:
  virtual ~ISettingsPersister() = default;

  // Load every source of defaults, or of the user's saved settings, through "combiner".
  virtual void LoadDefaultSettings(SettingsCombiner& combiner) = 0;
  virtual void LoadUserSettings(SettingsCombiner& combiner) = 0;

  // userSettings: the whole user layer, valid during the call only.
  virtual void SaveUserSettings(const core::IniFile& userSettings) = 0;

  // The same, knowing which groups of the layer came, went or hold something else than before, or are not seen any more
  // though the layer never held them. Called for every change that is to be saved, even when no group differs.
  virtual void SaveChangedGroups(const core::IniFile& userSettings, const std::set<std::string>& changedGroups) {
    static_cast<void>(changedGroups);
    SaveUserSettings(userSettings);
  }

  // The same for a change that also made groups larger: "added" holds the settings that they got. Nothing else of these
  // groups is different, unless they are changed groups, too. Called instead, with an "added" that is not empty.
  virtual void SaveAddedSettings(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
                                 const core::IniFile& added) {
    std::set<std::string> groups = changedGroups;
    for (const auto& group : added) groups.insert(group.first);
    SaveChangedGroups(userSettings, groups);
  }

  // A request of this thread asked the user layer for what it held already: these groups, or some of them. Whoever made
  // it relies on changes of others to be saved. Not under the store's lock as a rule.
  virtual void NoteUnchangedGroups(const common::GroupNameMatcher& groups) { static_cast<void>(groups); }
};

}  // namespace tavix::settings::server
