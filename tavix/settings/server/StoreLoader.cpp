#include "tavix/settings/server/StoreLoader.h"

#include <algorithm>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tavix/core/StringUtil.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

void RemoveGroupsOf(const IniFile::KeyMap& record, IniFile& all) {
  GroupNameMatcher deleted;
  for (const auto& entry : record) deleted.AddNameOrPattern(entry.second);
  std::set<std::string> groups;
  deleted.GetMatchingGroups(all, groups);
  for (const std::string& group : groups) all.RemoveGroup(group);
}

// What filters need counts as wanted. Empty where to try the patterns on all groups may take longer than to load them.
IniFile::GroupFilter MakeFilter(const GroupNameMatcher& matcher) {
  constexpr size_t kMaxPatterns = 8;
  const std::set<std::string>& patterns = matcher.GetPatterns();
  if (patterns.size() > kMaxPatterns) return nullptr;
  std::unordered_set<std::string_view> names(matcher.GetNames().begin(), matcher.GetNames().end());
  names.insert(LoadPriorityIncludeFilter::kGroup);
  return [names = std::move(names), &patterns](std::string_view name) {
    return names.count(name) != 0 || std::any_of(patterns.begin(), patterns.end(), [&](const auto& pattern) {
             return core::StringUtil::MatchesPattern(pattern, name);
           });
  };
}

}  // namespace

StoreLoader::StoreLoader(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                         IIncludeFilter* includeFilter, std::string recordGroup)
    : _persister(persister),
      _restrictedLoader(restrictedLoader),
      _includeFilter(includeFilter),
      _loadPriorityFilter(new LoadPriorityIncludeFilter),
      _recordGroup(std::move(recordGroup)) {}

StoreLoader::~StoreLoader() = default;

void StoreLoader::ConfigureSettingsCombiner(SettingsCombiner& combiner) const {
  if (_includeFilter) combiner.AddFilter(_includeFilter);
  combiner.AddFilter(_loadPriorityFilter.get());
}

StoreLoader::Documents StoreLoader::Load() const {
  Documents documents;
  SettingsCombiner combiner(documents.all);
  ConfigureSettingsCombiner(combiner);
  _persister->LoadDefaultSettings(combiner);
  LoadUserSettings(documents.user);
  const auto record = documents.user.GetGroups().find(_recordGroup);
  if (record != documents.user.GetGroups().end()) RemoveGroupsOf(record->second, documents.all);
  GroupDiscriminator::FilterOutRestrictedGroups(documents.all);
  documents.all.MergeSettings(documents.user);
  MergeRestrictedSettings(documents.all);
  documents.all.RemoveGroup(_recordGroup);
  return documents;
}

void StoreLoader::LoadUserSettings(IniFile& user) const {
  SettingsCombiner combiner(user);
  _persister->LoadUserSettings(combiner);
  GroupDiscriminator::FilterOutRestrictedGroups(user);
}

void StoreLoader::MergeRestrictedSettings(IniFile& all) const {
  if (!_restrictedLoader) return;
  IniFile restricted;
  SettingsCombiner combiner(restricted);
  ConfigureSettingsCombiner(combiner);
  _restrictedLoader->LoadRestrictedSettings(combiner);
  all.MergeSettings(std::move(restricted));
}

IniFile StoreLoader::LoadDefaults(const GroupNameMatcher& matcher) const {
  IniFile defaults;
  SettingsCombiner combiner(defaults);
  ConfigureSettingsCombiner(combiner);
  if (!_includeFilter) combiner.SetWanted(MakeFilter(matcher));  // nobody knows what a host's filter looks at
  _persister->LoadDefaultSettings(combiner);
  std::vector<IniFile::const_iterator> matched;
  matcher.GetMatchingGroups(defaults, matched);
  IniFile::GroupMap found;
  for (const auto& group : matched) found.insert(found.end(), defaults.GetMutableGroups().extract(group));
  return IniFile(std::move(found));
}

}  // namespace tavix::settings::server
