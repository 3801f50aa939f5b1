#include "tavix/settings/SettingsWatcher.h"

#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/IniWatcher.h"
#include "tavix/settings/Setting.h"

namespace tavix::settings {

class SettingsWatcher::SettingsWatcherImpl {
 public:
  explicit SettingsWatcherImpl(TavixSettingsClient* client)
      : _logger(core::Logger::GetLogger("SettingsWatcher")), _watcher(client, &_document) {}

  template <class T>
  void Add(const std::string& group, const std::string& key, T* target) {
    auto setting = std::make_unique<Setting<T>>(group, key, target);
    _watcher.AddPattern(group);
    _settings.push_back(std::move(setting));
  }

  bool Update() { return _watcher.Update() && ReadAll(); }
  bool TryUpdate() { return _watcher.TryUpdate() && ReadAll(); }

 private:
  bool ReadAll() {
    _logger->Trace("Setting %zu variables", _settings.size());
    for (const auto& setting : _settings) setting->ReadSetting(_document);
    return true;
  }

  core::Logger* const _logger;
  core::IniFile _document;
  IniWatcher _watcher;  // over _document
  std::vector<std::unique_ptr<SettingBase>> _settings;
};

SettingsWatcher::SettingsWatcher(TavixSettingsClient* client) : _pImpl(std::make_unique<SettingsWatcherImpl>(client)) {}

SettingsWatcher::~SettingsWatcher() = default;

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, int* target) {
  _pImpl->Add(group, key, target);
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, bool* target) {
  _pImpl->Add(group, key, target);
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, std::string* target) {
  _pImpl->Add(group, key, target);
}

bool SettingsWatcher::UpdateSettings() {
  return _pImpl->Update();
}

bool SettingsWatcher::TryUpdateSettings() {
  return _pImpl->TryUpdate();
}

}  // namespace tavix::settings
