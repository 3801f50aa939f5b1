#include "tavix/settings/TavixSettingsClient.h"

#include <algorithm>
#include <cstdlib>

#include "tavix/osa/Exception.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"
#include "tavix/settings/client/TavixSettingsClientImplLocal.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsClientImplSingleThreaded.h"
#include "tavix/settings/client/TavixSettingsLocalConnection.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/SettingsManager.h"

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

// Groups that clients can't set, or never see.
bool HasRefusedGroup(const IniFile& settings) {
  return std::any_of(settings.begin(), settings.end(), [](const auto& group) {
    return server::GroupDiscriminator::IsRestrictedGroup(group.first) ||
           group.first == server::SettingsManager::kDeletedGroups;
  });
}

std::set<std::string> GroupsOf(const IniFile& settings) {
  std::set<std::string> groups;
  for (const auto& group : settings) groups.insert(groups.end(), group.first);
  return groups;
}

std::string ShowNames(const std::set<std::string>& groups) {
  std::string text;
  for (const std::string& group : groups) text.append(text.empty() ? "[" : ", [").append(group).append("]");
  return text;
}

TavixSettingsClient::Outcome OutcomeOf(client::Keeping keeping) {
  using client::Keeping;
  if (keeping == Keeping::kUnknown) return TavixSettingsClient::Outcome::kMaybeKept;
  return keeping == Keeping::kKept ? TavixSettingsClient::Outcome::kDone : TavixSettingsClient::Outcome::kNotKept;
}

}  // namespace

TavixSettingsClient::TavixSettingsClient(OperationMode mode) : _pImpl(Make(mode, nullptr)) {}

TavixSettingsClient::TavixSettingsClient(OperationMode mode, const IniFile& defaults) : _pImpl(Make(mode, &defaults)) {}

// Locks and threads of a client that was left to the parent may never be free, or end.
TavixSettingsClient::~TavixSettingsClient() {
  if (IsLeftToParent()) static_cast<void>(_pImpl.release());
}

bool TavixSettingsClient::IsLeftToParent() const {
  return _pImpl->IsLeftToParent();
}

client::TavixSettingsClientImpl& TavixSettingsClient::Get(const char* call) const {
  if (!IsLeftToParent()) return *_pImpl;
  throw osa::Exception("%s can't be called in a forked process: the client's threads are in its parent", call);
}

bool TavixSettingsClient::GetSettings(const std::set<std::string>& groups, IniFile& out) const {
  return Get("GetSettings").GetSettings(groups, out);
}

bool TavixSettingsClient::GetSettings(const std::string& group, IniFile& out) const {
  return GetSettings(std::set<std::string>{group}, out);
}

bool TavixSettingsClient::RefreshSettings(IniFile& settings) const {
  return GetSettings(GroupsOf(settings), settings);
}

std::string TavixSettingsClient::GetValue(const SettingLocator& locator) const {
  std::optional<std::string> value;
  Get("GetValue").FindValue(locator.group, locator.key, value);
  return value ? *std::move(value) : std::string();
}

std::string TavixSettingsClient::GetValue(const std::string& locator) const {
  return GetValue(SettingLocator(locator));
}

std::optional<std::string> TavixSettingsClient::FindValue(const SettingLocator& locator) const {
  std::optional<std::string> value;
  if (!Get("FindValue").FindValue(locator.group, locator.key, value))
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
  Get("MergeSettings").MergeSettings(settings, flags);
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
  return Get("TestAndMerge").TestAndMerge(test, merge);
}

bool TavixSettingsClient::Amend(const Amendment& amendment) {
  return Get("Amend").Amend(amendment);
}

TavixSettingsClient::Outcome TavixSettingsClient::Apply(const IniFile& settings) {
  return Apply(IniFile(), settings);
}

// A merge has no reply, and leaves restricted groups out; a test-and-merge is answered.
TavixSettingsClient::Outcome TavixSettingsClient::Apply(const IniFile& expected, const IniFile& settings) {
  if (HasRefusedGroup(settings)) return Outcome::kRefused;
  if (TestAndMerge(expected, settings)) return OutcomeOf(Get("Apply").AskForKeeping());
  if (expected.IsEmpty()) return Outcome::kRefused;
  IniFile current;
  const std::set<std::string> groups = GroupsOf(expected);
  if (!GetSettings(groups, current))
    throw osa::Exception("The settings server's reply for '%s' can't be read", ShowNames(groups).c_str());
  return current.ContainsSettings(expected) ? Outcome::kRefused : Outcome::kConditionFailed;
}

bool TavixSettingsClient::TrySetValue(const SettingLocator& locator, const std::string& value) {
  IniFile settings;
  settings[locator.group][locator.key] = value;
  return !HasRefusedGroup(settings) && TestAndMerge(IniFile(), settings);
}

bool TavixSettingsClient::TrySetValue(const std::string& locator, const std::string& value) {
  return TrySetValue(SettingLocator(locator), value);
}

void TavixSettingsClient::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  Get("OverwriteSettings").OverwriteSettings(groups, settings);
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
  Get("RestoreToDefaults").RestoreToDefaults(groups);
}

void TavixSettingsClient::RestoreToDefaults(const std::string& group) {
  RestoreToDefaults(std::set<std::string>{group});
}

void TavixSettingsClient::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  Get("Subscribe").Subscribe(cb, groups);
}

void TavixSettingsClient::Subscribe(IChangeCallback* cb, const std::string& group) {
  Subscribe(cb, std::set<std::string>{group});
}

void TavixSettingsClient::UnSubscribe(IChangeCallback* cb) {
  if (!IsLeftToParent()) _pImpl->GetDispatcher().RemoveCallback(cb);
}

void TavixSettingsClient::Detach(IChangeCallback* cb) {
  if (!IsLeftToParent()) _pImpl->Detach(cb);
}

void TavixSettingsClient::AddConnectionObserver(IConnectionObserver* observer) {
  Get("AddConnectionObserver").AddConnectionObserver(observer);
}

void TavixSettingsClient::RemoveConnectionObserver(IConnectionObserver* observer) {
  if (!IsLeftToParent()) _pImpl->RemoveConnectionObserver(observer);
}

}  // namespace tavix::settings
