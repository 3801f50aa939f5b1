#pragma once

#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/persistence/UserSettingsPersister.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"

namespace tavix::daemon {

// The files that a store is loaded from: defaults, restricted settings, and what becomes known of the user settings
// when they are loaded. What becomes of changes is UserSettingsPersister's.
//
// Restricted groups are taken out of defaults as they are loaded: they count neither at start nor after a restore. A
// restore loads the groups that it needs alone, unless the files of defaults have changed since all of them were loaded
// last: so the counters know what they hold now.
// Threads: defaults may be loaded on several threads at once, beside questions; the rest by one.
// Groups that no list of names can hold are left out of defaults and restricted settings, with a warning.
// Errors:  loading throws osa::Exception naming the file, and the line where there is one; of the user settings, for
//          those alone that can't be read for a reason that is not the disk's.
// Members: many: where the layers' files are, what a check collects, and what was found by loads so far.
class SettingsSources : public ILayerSources, public settings::server::IRestrictedSettingsLoader {
 public:
  // What came of one file.
  struct Report {
    std::string layer;
    std::string path;
    size_t groups = 0;                      // that count
    std::vector<std::string> dropped;       // restricted groups in a layer that can't set them
    std::vector<std::string> outbid;        // groups that an earlier file of higher priority protects
    std::vector<std::string> unrestricted;  // of a restricted layer: groups that clients can change nevertheless
    std::string notLoaded;                  // why it was not; empty: it was

    std::string ToText() const;
  };

  // options: the path of the user settings is that of the file itself, but to check them: see FilePlaces.h. The layers'
  // files are listed anew at each load. counters: outlives the sources; is told of loads and saves.
  //
  // To check them, nothing is written, damaged user settings are an error, and what can't be loaded becomes a problem
  // instead of an exception, so that the rest is looked at, too.
  SettingsSources(const Options& options, Counters& counters);

  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
  void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

  // The user settings that are about to be loaded, by the persister.
  void OnUserSettingsFound(const FoundUserSettings& found) override;

  // The user settings as they are, for a store that does not keep them; nothing is touched. None when there is no path
  // for them.
  void LoadUserSettings(settings::server::SettingsCombiner& combiner);

  // One for each file, in the order in which they are merged.
  std::vector<Report> GetReports() const;

  // How much those of the files take that clients can't change. 0 but to check.
  size_t GetLayerBytes() const { return _layerBytes; }

  // What could not be loaded, and why. None but to check.
  std::vector<std::string> GetProblems() const;

 private:
  enum class Layer { kDefaults, kRestricted };

  static const char* NameOf(Layer layer);
  LayerSize LoadLayer(Layer layer, settings::server::SettingsCombiner& combiner,
                      const core::IniFile::GroupFilter& isWanted);
  std::string DescribeDefaults() const;
  template <class Step>
  bool Try(Step step);
  void LoadLayerFile(Layer layer, const std::string& path, const settings::server::SettingsCombiner& combiner,
                     const core::IniFile::GroupFilter& isWanted, core::IniFile& merged);
  void RememberUserSettings(const FoundUserSettings& found, const char* notLoaded);
  void WarnOfLongNames(const std::string& path, const core::IniFile& document) const;
  void WarnOfUnrestricted(const core::IniFile& document, Report& report);
  void WarnOnce(const std::string& message) TAVIX_EXCLUDES(_mutex);
  void Remember(Report report) TAVIX_EXCLUDES(_mutex);

  const LayerSources _defaults;
  const LayerSources _restricted;
  const std::string _userSettings;  // empty: there are none
  const bool _isCheck;              // else reports name no groups: with many, these cost as much as the settings
  const size_t _maxNameBytes;
  std::atomic<size_t> _layerBytes{0};
  Counters& _counters;
  std::atomic<bool> _areDefaultsLoaded{false};  // once; later loads are for restores
  mutable osa::PlainMutex _mutex;
  std::vector<Report> _reports TAVIX_GUARDED_BY(_mutex);
  std::vector<std::string> _problems TAVIX_GUARDED_BY(_mutex);
  std::string _loadedDefaults TAVIX_GUARDED_BY(_mutex);      // their files, when all of them were last loaded
  std::set<std::string> _warnings TAVIX_GUARDED_BY(_mutex);  // that were logged
};

}  // namespace tavix::daemon
