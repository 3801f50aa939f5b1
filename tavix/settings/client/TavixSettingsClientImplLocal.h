#pragma once

#include "tavix/core/IniFile.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::settings::client {

// A whole store inside the caller's process, used on the caller's thread. It starts from the defaults that it is given
// and never writes to disk.
//
// Threads: any. Callbacks run on the thread that made the change, inside the call that made it; they may read settings,
//          but must not change, subscribe to or unsubscribe from them.
// Note:    subscribers are kept in a dispatcher of its own, which the facade's UnSubscribe does not reach: they stay
//          subscribed for the client's whole life, on purpose.
class TavixSettingsClientImplLocal : public TavixSettingsClientImpl, public IChangeCallback {
 public:
  // defaults: copied; may be null.
  explicit TavixSettingsClientImplLocal(const core::IniFile* defaults);

  bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const override;
  bool FindValue(const std::string& group, const std::string& key, std::optional<std::string>& value) const override;
  void MergeSettings(const core::IniFile& settings, unsigned int flags) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge) override;
  bool Amend(const Amendment& amendment) override;
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) override;
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings) override;
  void RestoreToDefaults(const std::set<std::string>& groups) override;
  void Detach(IChangeCallback* cb) override;
  Keeping AskForKeeping() const override { return Keeping::kNotKept; }

  // From the store: passes the groups on with their current content.
  void OnChange(const std::set<std::string>& groups, const core::IniFile& settings) override;

 private:
  // Knows the defaults, and saves nothing.
  class LocalPersister : public server::ISettingsPersister {
   public:
    explicit LocalPersister(const core::IniFile* defaults);

    void LoadDefaultSettings(server::SettingsCombiner& combiner) override;
    void LoadUserSettings(server::SettingsCombiner& combiner) override;
    void SaveUserSettings(const core::IniFile& userSettings) override;

   private:
    core::IniFile _defaults;
  };

  LocalPersister _persister;
  server::SettingsManager _manager;
  common::CallbackDispatcher _dispatcher;
};

}  // namespace tavix::settings::client
