#include "tavix/settings/LogManager.h"

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/Subscription.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

using core::IniFile;
using core::Logger;

namespace {

constexpr char kLevel[] = "log.level";
constexpr char kFile[] = "log.file";

}  // namespace

class LogManager::ChangeCallback : public IChangeCallback {
 public:
  ChangeCallback(TavixSettingsClient* client, const char* name)
      : _logger(Logger::GetLogger("LogManager")), _client(client), _name(name), _subscription(client, this) {
    ConfigureNow();
    FollowChanges();
  }

  void OnChange(const std::set<std::string>&, const IniFile& settings) override { Reconfigure(settings); }

 private:
  void ConfigureNow() {
    IniFile settings;
    if (!_client->GetSettings(_name, settings))
      throw osa::Exception("The log settings '%s' could not be read", _name.c_str());
    if (!settings.HasValue(_name, kLevel)) {
      settings.SetValue(_name, "log.syslog", "true");
      settings.SetValue(_name, "log.stdout", "false");
      settings.SetValue(_name, "using_defs", "false");
      settings.SetInt(_name, kLevel, core::kLogError);
      _client->MergeSettings(settings);
    }
    Reconfigure(settings);
  }

  void FollowChanges() {
    try {
      _subscription.Subscribe({_name});
    } catch (...) {
      _logger->Error(
          "Failed to subscribe to log settings - probably created TavixSettingsClient in SingleThreaded mode instead "
          "of MultiThreaded");
    }
  }

  void Reconfigure(const IniFile& settings) const {
    _logger->Information("Reconfiguring logging");
    Logger::ClearAppenders();
    Logger::ConfigureLogging(settings, _name);
    if (settings.HasValue(_name, kFile)) Logger::ModifyLogRotateConf(settings.GetValue(_name, kFile), _name);
    _logger->Information("Finished reconfiguring logging");
  }

  Logger* const _logger;
  TavixSettingsClient* const _client;
  const std::string _name;
  Subscription _subscription;  // ends before anything else goes
};

LogManager::LogManager(TavixSettingsClient* client, const char* name) {
  if (!client) throw osa::Exception("%s was NULL", "client");
  if (!name) throw osa::Exception("%s was NULL", "name");
  _pChangeCallback = std::make_unique<ChangeCallback>(client, name);
}

LogManager::~LogManager() = default;

}  // namespace tavix::settings
