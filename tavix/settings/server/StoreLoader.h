#pragma once

#include <memory>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/SharedPlaces.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

class IIncludeFilter;
class IRestrictedSettingsLoader;
class ISettingsPersister;
class SettingsCombiner;

// Builds a store's documents from their sources, layer by layer: see SettingsManager.
//
// Threads: any; the persister and the loader say what they allow.
// Locks:   none of its own.
// Owns:    the filter for load priorities, which knows priorities from one load to the next.
// Errors:  those of persister, loader and filters pass through.
class StoreLoader {
 public:
  struct Documents {
    core::IniFile all;   // what readers see
    core::IniFile user;  // the user settings with their bookkeeping
    HiddenLayers hidden;
    SharedPlaces shared;  // groups of "user" whose keys are in "all" alone
  };

  // All outlive the object. restrictedLoader and includeFilter may be null; so may the persister, then nothing is
  // loaded. recordGroup: the group of the user settings that is the record of deleted groups.
  StoreLoader(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader, IIncludeFilter* includeFilter,
              std::string recordGroup);
  ~StoreLoader();

  StoreLoader(const StoreLoader&) = delete;
  StoreLoader& operator=(const StoreLoader&) = delete;

  // Adds the caller's filter, then the one for load priorities.
  void ConfigureSettingsCombiner(SettingsCombiner& combiner) const;

  // Needs a persister, here and below.
  Documents Load() const;

  // Adds the user settings to "user", and takes restricted groups out of it.
  void LoadUserSettings(core::IniFile& user) const;

  // The matching groups of the defaults.
  core::IniFile LoadDefaults(const common::GroupNameMatcher& matcher) const;

 private:
  void LoadAllUserSettings(core::IniFile& user) const;
  core::IniFile LoadRestrictedSettings() const;
  void MergeUserSettings(Documents& documents, const core::IniFile& restricted) const;
  void MergeRestrictedSettings(Documents& documents, core::IniFile restricted) const;

  ISettingsPersister* const _persister;
  IRestrictedSettingsLoader* const _restrictedLoader;
  IIncludeFilter* const _includeFilter;
  const std::unique_ptr<IIncludeFilter> _loadPriorityFilter;
  const std::string _recordGroup;
};

}  // namespace tavix::settings::server
