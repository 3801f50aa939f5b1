#include "tavix/settings/TavixSettingsClient.h"

#include <cstdlib>

#include "tavix/osa/Exception.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"
#include "tavix/settings/client/TavixSettingsClientImplLocal.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsClientImplSingleThreaded.h"
#include "tavix/settings/client/TavixSettingsLocalConnection.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"

namespace tavix::settings {

using core::IniFile;

namespace {

using Impl = std::unique_ptr<client::TavixSettingsClientImpl>;

Impl MakeOverridden(const char* localFile, const IniFile* defaults) {
  IniFile settings;
  if (defaults) settings.MergeSettings(*defaults);
  if (*localFile) settings.Load(localFile);
  return std::make_unique<client::TavixSettingsClientImplLocal>(&settings);
}

// The implementation owns the connection once it is made.
template <class Client, class Connection>
Impl MakeRemote() {
  auto connection = std::make_unique<Connection>();
  auto made = std::make_unique<Client>(connection.get());
  connection.release();
  return made;
}

Impl Make(TavixSettingsClient::OperationMode mode, const IniFile* defaults) {
  if (const char* localFile = std::getenv("TAVIX_SETTINGS_LOCALFILE")) return MakeOverridden(localFile, defaults);
  using namespace client;
  switch (mode) {
    case TavixSettingsClient::MultiThreaded:
      return MakeRemote<TavixSettingsClientImplMultiThreaded, TavixSettingsTcpConnection>();
    case TavixSettingsClient::SingleThreaded:
      return MakeRemote<TavixSettingsClientImplSingleThreaded, TavixSettingsTcpConnection>();
    case TavixSettingsClient::Local:
      return std::make_unique<TavixSettingsClientImplLocal>(defaults);
    case TavixSettingsClient::SingleThreadedLocalConnection:
      return MakeRemote<TavixSettingsClientImplSingleThreaded, TavixSettingsLocalConnection>();
    case TavixSettingsClient::MultiThreadedLocalConnection:
      return MakeRemote<TavixSettingsClientImplMultiThreaded, TavixSettingsLocalConnection>();
  }
  throw osa::Exception("Invalid or unsupported operation mode");
}

std::set<std::string> GroupsOf(const IniFile& settings) {
  std::set<std::string> groups;
  for (const auto& group : settings) groups.insert(groups.end(), group.first);
  return groups;
}

}  // namespace

TavixSettingsClient::TavixSettingsClient(OperationMode mode) : _pImpl(Make(mode, nullptr)) {}

TavixSettingsClient::TavixSettingsClient(OperationMode mode, const IniFile& defaults) : _pImpl(Make(mode, &defaults)) {}

TavixSettingsClient::~TavixSettingsClient() = default;

bool TavixSettingsClient::GetSettings(const std::set<std::string>& groups, IniFile& out) const {
  return _pImpl->GetSettings(groups, out);
}

bool TavixSettingsClient::GetSettings(const std::string& group, IniFile& out) const {
  return GetSettings(std::set<std::string>{group}, out);
}

bool TavixSettingsClient::RefreshSettings(IniFile& settings) const {
  return GetSettings(GroupsOf(settings), settings);
}

std::string TavixSettingsClient::GetValue(const SettingLocator& locator) const {
  std::optional<std::string> value;
  _pImpl->FindValue(locator.group, locator.key, value);
  return value ? *std::move(value) : std::string();
}

std::string TavixSettingsClient::GetValue(const std::string& locator) const {
  return GetValue(SettingLocator(locator));
}

std::optional<std::string> TavixSettingsClient::FindValue(const SettingLocator& locator) const {
  std::optional<std::string> value;
  if (!_pImpl->FindValue(locator.group, locator.key, value))
    throw osa::Exception("The settings server's reply for '[%s]%s' can't be read", locator.group.c_str(),
                         locator.key.c_str());
  return value;
}

std::optional<std::string> TavixSettingsClient::FindValue(const std::string& locator) const {
  return FindValue(SettingLocator(locator));
}

void TavixSettingsClient::MergeSettings(const IniFile& settings) {
  MergeSettings(settings, 0);
}

void TavixSettingsClient::MergeSettings(const IniFile& settings, unsigned int flags) {
  _pImpl->MergeSettings(settings, flags);
}

void TavixSettingsClient::SetValue(const SettingLocator& locator, const std::string& value) {
  IniFile settings;
  settings[locator.group][locator.key] = value;
  MergeSettings(settings);
}

void TavixSettingsClient::SetValue(const std::string& locator, const std::string& value) {
  SetValue(SettingLocator(locator), value);
}

bool TavixSettingsClient::TestAndMerge(const IniFile& test, const IniFile& merge) {
  return _pImpl->TestAndMerge(test, merge);
}

void TavixSettingsClient::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  _pImpl->OverwriteSettings(groups, settings);
}

void TavixSettingsClient::OverwriteSettings(const std::string& group, const IniFile& settings) {
  OverwriteSettings(std::set<std::string>{group}, settings);
}

void TavixSettingsClient::OverwriteSettings(const IniFile& settings) {
  OverwriteSettings(GroupsOf(settings), settings);
}

void TavixSettingsClient::EraseGroups(const std::set<std::string>& groups) {
  OverwriteSettings(groups, IniFile());
}

void TavixSettingsClient::EraseGroups(const std::string& group) {
  OverwriteSettings(group, IniFile());
}

void TavixSettingsClient::RestoreToDefaults(const std::set<std::string>& groups) {
  _pImpl->RestoreToDefaults(groups);
}

void TavixSettingsClient::RestoreToDefaults(const std::string& group) {
  RestoreToDefaults(std::set<std::string>{group});
}

void TavixSettingsClient::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  _pImpl->Subscribe(cb, groups);
}

void TavixSettingsClient::Subscribe(IChangeCallback* cb, const std::string& group) {
  Subscribe(cb, std::set<std::string>{group});
}

void TavixSettingsClient::UnSubscribe(IChangeCallback* cb) {
  _pImpl->GetDispatcher().RemoveCallback(cb);
}

void TavixSettingsClient::Detach(IChangeCallback* cb) {
  _pImpl->Detach(cb);
}

void TavixSettingsClient::AddConnectionObserver(IConnectionObserver* observer) {
  _pImpl->AddConnectionObserver(observer);
}

void TavixSettingsClient::RemoveConnectionObserver(IConnectionObserver* observer) {
  _pImpl->RemoveConnectionObserver(observer);
}

}  // namespace tavix::settings
