#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/persistence/UserSettingsPersister.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// The files that the store is loaded from; what becomes of changes is the persister's.
//
// Restricted groups are taken out of defaults as they are loaded: they count neither at start nor after a restore.
// Threads: as ISettingsPersister asks; loading defaults may run beside a save.
// Groups that no list of names can hold are left out of defaults and restricted settings, with a warning.
// Errors:  loading throws osa::Exception naming the file, and the line where there is one; of the user settings, for
//          those alone that can't be read for a reason that is not the disk's. Saving never throws.
class SettingsSources : public settings::server::ISettingsPersister,
                        public settings::server::IRestrictedSettingsLoader {
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
  void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;
  void SaveUserSettings(const core::IniFile& userSettings) override;
  void SaveChangedGroups(const core::IniFile& userSettings, const std::set<std::string>& changedGroups) override;
  void SaveAddedSettings(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
                         const core::IniFile& added) override;
  void NoteUnchangedGroups(const settings::common::GroupNameMatcher& groups) override;
  void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

  // Null when nothing is persisted.
  UserSettingsPersister* GetPersister() { return _persister.get(); }

  // How long the end may wait for the disk.
  std::chrono::seconds GetMostForTheEnd() const { return _mostForTheEnd; }

  // One for each file, in the order in which they are merged.
  std::vector<Report> GetReports() const;

  // How much memory the settings may take, about.
  size_t GetMaxStoreBytes() const { return _maxStoreBytes; }

  // How much those of the files take that clients can't change. 0 but to check.
  size_t GetLayerBytes() const { return _layerBytes; }

  // What could not be loaded, and why. None but to check.
  std::vector<std::string> GetProblems() const;

 private:
  enum class Layer { kDefaults, kRestricted };

  static const char* NameOf(Layer layer);
  LayerSize LoadLayer(Layer layer, settings::server::SettingsCombiner& combiner);
  template <class Step>
  bool Try(Step step);
  void LoadLayerFile(Layer layer, const std::string& path, const settings::server::SettingsCombiner& combiner,
                     core::IniFile& merged);
  FoundUserSettings FindUserSettings();
  void WarnOfUnrestricted(const core::IniFile& document, Report& report);
  void WarnOnce(const std::string& message);
  void Remember(Report report);

  const LayerSources _defaults;
  const LayerSources _restricted;
  const std::string _userSettings;  // empty: there are none
  const bool _isCheck;              // else reports name no groups: with many, these cost as much as the settings
  const std::chrono::seconds _mostForTheEnd;
  const size_t _maxNameBytes;
  const size_t _maxStoreBytes;
  std::atomic<size_t> _layerBytes{0};
  Counters& _counters;
  const std::unique_ptr<UserSettingsPersister> _persister;  // may be null
  std::atomic<bool> _areDefaultsLoaded{false};              // once; later loads are for restores
  mutable std::mutex _mutex;                                // guards what follows
  std::vector<Report> _reports;
  std::vector<std::string> _problems;
  std::set<std::string> _warnings;  // that were logged
};

// The daemon's store over its sources, whose changes are persisted from its construction to its end. The constructor
// loads everything and throws what can't be loaded.
class SettingsStore {
 public:
  // sources: outlives the store.
  explicit SettingsStore(SettingsSources& sources);
  ~SettingsStore();

  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  settings::server::SettingsManager& GetManager() { return _manager; }

  size_t CountGroups() const;

  // Why only changes are made that do not make the store larger; empty: others are, too.
  std::string DescribeFullness() const;

  // What keeps messages back until they may be seen; null when nothing is persisted.
  DurabilityGate* GetGate();

  // Once nothing is changed any more: leaves the user settings as one file. False when the last changes could not be
  // saved. onLate: called on another thread when the disk takes longer than the options allow; it may end the process.
  bool Finish(const std::function<void(bool isSaved)>& onLate);

 private:
  SettingsSources& _sources;
  settings::server::SettingsManager _manager;
};

}  // namespace tavix::daemon
