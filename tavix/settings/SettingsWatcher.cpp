#include "tavix/settings/SettingsWatcher.h"

#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/CheckedSetting.h"
#include "tavix/settings/IniWatcher.h"
#include "tavix/settings/Setting.h"

namespace tavix::settings {

class SettingsWatcher::SettingsWatcherImpl {
 public:
  explicit SettingsWatcherImpl(TavixSettingsClient* client)
      : _logger(core::Logger::GetLogger("SettingsWatcher")), _watcher(client, &_document) {}

  void Add(const std::string& group, std::unique_ptr<SettingBase> setting) {
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
  _pImpl->Add(group, std::make_unique<Setting<int>>(group, key, target));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, bool* target) {
  _pImpl->Add(group, std::make_unique<Setting<bool>>(group, key, target));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, std::string* target) {
  _pImpl->Add(group, std::make_unique<Setting<std::string>>(group, key, target));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, int* target, int def, int min,
                                 int max) {
  const auto assign = [](void* variable, int64_t number) { *static_cast<int*>(variable) = static_cast<int>(number); };
  _pImpl->Add(group, std::make_unique<IntegerSetting>(group, key, Variable{target, assign}, def, min, max));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, int64_t* target, int64_t def,
                                 int64_t min, int64_t max) {
  const auto assign = [](void* variable, int64_t number) { *static_cast<int64_t*>(variable) = number; };
  _pImpl->Add(group, std::make_unique<IntegerSetting>(group, key, Variable{target, assign}, def, min, max));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, std::chrono::milliseconds* target,
                                 std::chrono::milliseconds def, std::chrono::milliseconds min,
                                 std::chrono::milliseconds max) {
  const auto assign = [](void* variable, int64_t number) {
    *static_cast<std::chrono::milliseconds*>(variable) = std::chrono::milliseconds(number);
  };
  _pImpl->Add(group, std::make_unique<IntegerSetting>(group, key, Variable{target, assign}, def.count(), min.count(),
                                                      max.count()));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, double* target, double def,
                                 double min, double max) {
  _pImpl->Add(group, std::make_unique<RealSetting>(group, key, target, def, min, max));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, bool* target, bool def) {
  _pImpl->Add(group, std::make_unique<BoolSetting>(group, key, target, def));
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, std::string* target,
                                 const std::string& def) {
  _pImpl->Add(group, std::make_unique<TextSetting>(group, key, target, def));
}

void SettingsWatcher::AddEnumeration(const std::string& group, const std::string& key, void* target,
                                     void (*assign)(void*, int64_t), int64_t def, NamedNumbers names) {
  _pImpl->Add(group, std::make_unique<NamedSetting>(group, key, Variable{target, assign}, def, std::move(names)));
}

bool SettingsWatcher::UpdateSettings() {
  return _pImpl->Update();
}

bool SettingsWatcher::TryUpdateSettings() {
  return _pImpl->TryUpdate();
}

}  // namespace tavix::settings
