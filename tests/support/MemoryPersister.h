#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"

namespace tavix::test {

// The defaults and the saved user settings of a store, as settings text in memory. It outlives stores: the next one
// that is made over it is the store after a restart.
//
// Threads: any.
class MemoryPersister : public settings::server::ISettingsPersister {
 public:
  // defaults: sources of their own, loaded in that order. user: what an earlier store saved.
  explicit MemoryPersister(std::vector<std::string> defaults = {}, std::string user = "");

  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
  void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;
  void SaveUserSettings(const core::IniFile& userSettings) override;
  settings::server::ChangeTicket SaveChange(const SavedChange& change) override;
  bool NeedsWholeUserSettings() const override { return _needsWhole; }

  // Before a store is made over it: its user settings need not be one document.
  void SetNeedsWhole(bool needsWhole) { _needsWhole = needsWhole; }

  void SetDefaults(std::vector<std::string> defaults);

  // The next save keeps nothing and throws osa::Exception "No space left on the device".
  void FailNextSave();

  // The user settings as they were saved last, or given at the start.
  std::string GetSaved() const;

  // How often something was saved.
  int CountSaves() const;

 private:
  mutable std::mutex _mutex;  // guards what follows
  std::vector<std::string> _defaults;
  std::string _user;
  int _saves = 0;
  bool _failsNextSave = false;
  bool _needsWhole = true;  // not guarded: it is set first
};

// Brings the settings of one text.
class MemoryRestrictedLoader : public settings::server::IRestrictedSettingsLoader {
 public:
  explicit MemoryRestrictedLoader(std::string text) : _text(std::move(text)) {}

  void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

 private:
  const std::string _text;
};

}  // namespace tavix::test
