#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/persistence/Checkpoints.h"
#include "programs/server/persistence/UserSettingsPersister.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/StoreTrials.h"
#include "programs/server/trials/SharedTrials.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// The daemon's store over its sources, whose changes are persisted from its construction to its end, unless the options
// name no file for them or ask for a check.
//
// Threads: one; the manager and the gate are for any.
// Errors:  the constructor loads everything and throws what can't be loaded.
class SettingsStore {
 public:
  // sources, counters: outlive the store; the counters are told of saves.
  SettingsStore(SettingsSources& sources, const Options& options, Counters& counters);
  ~SettingsStore();

  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  settings::server::SettingsManager& GetManager() { return _manager; }

  size_t CountGroups() const;

  // Why only changes are made that do not make the store larger; empty: others are, too.
  std::string DescribeFullness() const;

  // What keeps messages back until they may be seen; null when nothing is persisted.
  DurabilityGate* GetGate() { return _userSettings ? &_userSettings->GetGate() : nullptr; }

  // What is known of earlier changes; null when no history is kept.
  const KeptHistory* GetHistory() const { return _userSettings ? _userSettings->GetHistory() : nullptr; }

  // The copies of the user settings that clients keep; null when no history is kept.
  Checkpoints* GetCheckpoints() { return _checkpoints ? &*_checkpoints : nullptr; }

  // What can be put on trial; null when nothing can.
  StoreTrials* GetTrials() { return _mayTry ? _trials.get() : nullptr; }

  // What may have to go back in time; null when nothing can be on trial.
  StoreTrials* GetTimedTrials() { return _mayTry || (_trials && _trials->HasPending()) ? _trials.get() : nullptr; }

  // The daemon ends from now on. onLate: is called on another thread when Finish has not returned within
  // --stop-timeout; it may end the process.
  void LimitEnd(const std::function<void(bool isSaved)>& onLate);

  // Once no client changes anything any more: reverts what is on trial, and leaves the user settings as one file. False
  // when the last changes could not be saved.
  bool Finish();

 private:
  void RevertEarlierTrials();

  const std::chrono::seconds _maxStopTime;
  const size_t _maxBytes;
  const bool _mayTry;
  const std::unique_ptr<SharedTrials> _sharedTrials;                     // null: nothing is persisted
  const std::unique_ptr<UserSettingsPersister> _userSettings;            // null: nothing is persisted
  std::optional<Checkpoints> _checkpoints;                               // empty: no history is kept
  const std::unique_ptr<settings::server::ISettingsPersister> _unsaved;  // null: changes are persisted
  settings::server::SettingsManager _manager;
  const std::unique_ptr<StoreTrials> _trials;  // null: nothing is persisted
};

}  // namespace tavix::daemon
