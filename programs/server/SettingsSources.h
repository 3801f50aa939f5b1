#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "programs/server/Counters.h"
#include "programs/server/Options.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// The files that the store is loaded from, and the one that it is saved to.
//
// Restricted groups are taken out of defaults as they are loaded: they count neither at start nor after a restore.
// Threads: as ISettingsPersister asks; loading defaults may run beside a save.
// Errors:  loading throws osa::Exception naming the file, and the line where there is one. Saving never throws: the
//          change stays in memory, the log says why it could not be saved, and the next save includes it.
// Survives: a crash or power cut at any moment leaves the old user settings or the new, whole. What a client wrote is
//          on the disk before it is announced to subscribers, unless saving fails.
class SettingsSources : public settings::server::ISettingsPersister,
                        public settings::server::IRestrictedSettingsLoader {
 public:
  // What came of one file.
  struct Report {
    std::string layer;
    std::string path;
    size_t groups = 0;                 // that count
    std::vector<std::string> dropped;  // restricted groups in a layer that can't set them
    std::vector<std::string> outbid;   // groups that an earlier file of higher priority protects
    std::string notLoaded;             // why it was not; empty: it was

    std::string ToText() const;
  };

  // The layers' files are listed anew at each load. userSettings: may be absent; empty: nothing is persisted. A link to
  // it is followed once, now. counters: outlives the sources; is told of loads and saves.
  SettingsSources(LayerSources defaults, LayerSources restricted, const std::string& userSettings, Counters& counters);

  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
  void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;
  void SaveUserSettings(const core::IniFile& userSettings) override;
  void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

  // Replaces the user settings' file by "text". False, with the log saying why, when that fails.
  bool SaveText(const std::string& text);

  // Whether a change was not saved.
  bool HasUnsavedChange() const { return _hasUnsavedChange; }

  // One for each file, in the order in which they are merged.
  std::vector<Report> GetReports() const;

 private:
  enum class Layer { kDefaults, kRestricted };

  static const char* NameOf(Layer layer);
  LayerSize LoadLayer(Layer layer, settings::server::SettingsCombiner& combiner);
  void LoadLayerFile(Layer layer, const std::string& path, const settings::server::SettingsCombiner& combiner,
                     core::IniFile& merged);
  void Remember(Report report);

  const LayerSources _defaults;
  const LayerSources _restricted;
  const std::string _userSettings;
  Counters& _counters;
  std::atomic<bool> _hasUnsavedChange{false};
  mutable std::mutex _mutex;  // guards _reports
  std::vector<Report> _reports;
};

// The daemon's store over its sources. The constructor loads everything and throws what can't be loaded.
class SettingsStore {
 public:
  // sources: outlives the store.
  explicit SettingsStore(SettingsSources& sources) : _sources(sources), _manager(&sources, &sources, nullptr, false) {}

  settings::server::SettingsManager& GetManager() { return _manager; }

  size_t CountGroups() const;

  // Tries once more to save a change that could not be saved. False when that fails again.
  bool SaveLastChange();

 private:
  SettingsSources& _sources;
  settings::server::SettingsManager _manager;
};

}  // namespace tavix::daemon
