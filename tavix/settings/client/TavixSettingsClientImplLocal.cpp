#include "tavix/settings/client/TavixSettingsClientImplLocal.h"

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::settings::client {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

GroupNameMatcher MatcherFor(const std::set<std::string>& groups) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return matcher;
}

}  // namespace

TavixSettingsClientImplLocal::LocalPersister::LocalPersister(const IniFile* defaults) {
  if (defaults) _defaults.MergeSettings(*defaults);
}

void TavixSettingsClientImplLocal::LocalPersister::LoadDefaultSettings(server::SettingsCombiner& combiner) {
  combiner.LoadFromIni(_defaults);
}

void TavixSettingsClientImplLocal::LocalPersister::LoadUserSettings(server::SettingsCombiner&) {}

void TavixSettingsClientImplLocal::LocalPersister::SaveUserSettings(const IniFile&) {}

TavixSettingsClientImplLocal::TavixSettingsClientImplLocal(const IniFile* defaults)
    : _persister(defaults), _manager(&_persister, nullptr, nullptr, false) {}

bool TavixSettingsClientImplLocal::GetSettings(const std::set<std::string>& groups, IniFile& out) const {
  _manager.GetGroups(out, MatcherFor(groups));
  return true;
}

bool TavixSettingsClientImplLocal::FindValue(const std::string& group, const std::string& key,
                                             std::optional<std::string>& value) const {
  value = _manager.FindValue(group, key);
  return true;
}

void TavixSettingsClientImplLocal::MergeSettings(const IniFile& settings, unsigned int flags) {
  _manager.MergeSettings(settings, flags);
}

bool TavixSettingsClientImplLocal::TestAndMerge(const IniFile& test, const IniFile& merge) {
  return _manager.TestAndMerge(test, merge);
}

bool TavixSettingsClientImplLocal::Amend(const Amendment& amendment) {
  return _manager.Amend(amendment);
}

void TavixSettingsClientImplLocal::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  _dispatcher.AddCallback(cb, groups);
  _manager.Subscribe(this, groups);
}

void TavixSettingsClientImplLocal::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  _manager.OverwriteSettings(groups, settings);
}

void TavixSettingsClientImplLocal::RestoreToDefaults(const std::set<std::string>& groups) {
  _manager.RestoreToDefaults(MatcherFor(groups));
}

void TavixSettingsClientImplLocal::Detach(IChangeCallback* cb) {
  _dispatcher.RemoveCallback(cb);
}

void TavixSettingsClientImplLocal::OnChange(const std::set<std::string>& groups, const IniFile&) {
  IniFile current;
  _manager.GetGroups(current, MatcherFor(groups));
  _dispatcher.OnChange(groups, current);
}

}  // namespace tavix::settings::client
