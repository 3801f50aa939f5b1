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
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

bool IsLayered(const std::string& group, const std::string& recordGroup) {
  return group != recordGroup && !GroupDiscriminator::IsRestrictedGroup(group);
}

// Moves the groups that the record deletes to the hidden defaults.
void RemoveGroupsOf(const IniFile::KeyMap& record, const std::string& recordGroup, IniFile& all, IniFile& hidden) {
  GroupNameMatcher deleted;
  for (const auto& entry : record) deleted.AddNameOrPattern(entry.second);
  std::vector<IniFile::const_iterator> matched;
  deleted.GetMatchingGroups(all, matched);
  for (const auto& group : matched) {
    auto node = all.GetMutableGroups().extract(group);
    if (IsLayered(node.key(), recordGroup)) hidden.GetMutableGroups().insert(hidden.end(), std::move(node));
  }
}

// Moves the defaults of one group that are about to be replaced. user: what replaced some before; may be null.
void HideReplaced(IniFile::GroupMap::value_type& own, const IniFile::KeyMap* user, const IniFile::KeyMap& settings,
                  IniFile& hidden) {
  IniFile::KeyMap* target = nullptr;
  const auto findTarget = [&]() -> IniFile::KeyMap& {
    if (!target) target = &hidden.GetMutableGroups().try_emplace(hidden.end(), own.first)->second;
    return *target;
  };
  if (own.second.empty() && !user) findTarget();
  for (const auto& setting : settings) {
    const auto value = own.second.find(setting.first);
    if (value == own.second.end() || FindValue(user, setting.first)) continue;
    findTarget().emplace_hint(findTarget().end(), setting.first, std::move(value->second));
  }
}

// The first group from "at" on that is not less than the name. Close by, to go on takes less than to begin again.
IniFile::iterator FindFrom(IniFile::GroupMap& groups, IniFile::iterator at, const std::string& name) {
  constexpr int kCloseBy = 3;
  for (int step = 0; step < kCloseBy && at != groups.end() && at->first < name; ++step) ++at;
  return at != groups.end() && at->first < name ? groups.lower_bound(name) : at;
}

// The same for all groups that settings are about to be merged into.
void HideReplaced(IniFile& all, const IniFile& user, const IniFile& settings, IniFile& hidden) {
  IniFile::GroupMap& groups = all.GetMutableGroups();
  auto own = groups.begin();
  for (const auto& [name, keys] : settings) {
    own = FindFrom(groups, own, name);
    if (own == groups.end()) return;
    if (own->first == name) HideReplaced(*own, FindKeys(user, name), keys, hidden);
  }
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
  IniFile& all = documents.all;
  SettingsCombiner combiner(all);
  ConfigureSettingsCombiner(combiner);
  _persister->LoadDefaultSettings(combiner);
  LoadAllUserSettings(documents.user);
  if (const IniFile::KeyMap* const record = FindKeys(documents.user, _recordGroup))
    RemoveGroupsOf(*record, _recordGroup, all, documents.hidden.defaults);
  GroupDiscriminator::FilterOutRestrictedGroups(all);
  all.RemoveGroup(_recordGroup);
  HideReplaced(all, {}, documents.user, documents.hidden.defaults);
  IniFile restricted = LoadRestrictedSettings();
  MergeUserSettings(documents, restricted);
  MergeRestrictedSettings(documents, std::move(restricted));
  all.RemoveGroup(_recordGroup);
  return documents;
}

void StoreLoader::LoadUserSettings(IniFile& user) const {
  LoadAllUserSettings(user);
  GroupDiscriminator::FilterOutRestrictedGroups(user);
}

void StoreLoader::LoadAllUserSettings(IniFile& user) const {
  SettingsCombiner combiner(user);
  _persister->LoadUserSettings(combiner);
}

IniFile StoreLoader::LoadRestrictedSettings() const {
  IniFile restricted;
  if (!_restrictedLoader) return restricted;
  SettingsCombiner combiner(restricted);
  ConfigureSettingsCombiner(combiner);
  _restrictedLoader->LoadRestrictedSettings(combiner);
  return restricted;
}

// What readers see of a group is what the user settings have, unless another layer has something to add to it.
// Restricted groups leave the user settings on the way: each walk over a large document costs as much as to read a
// tenth of it.
void StoreLoader::MergeUserSettings(Documents& documents, const IniFile& restricted) const {
  if (_persister->NeedsWholeUserSettings()) {
    GroupDiscriminator::FilterOutRestrictedGroups(documents.user);
    return documents.all.MergeSettings(documents.user);
  }
  IniFile::GroupMap& groups = documents.all.GetMutableGroups();
  documents.shared = SharedPlaces(documents.user.GetGroups().size());
  auto own = groups.begin();
  for (auto next = documents.user.begin(); next != documents.user.end();) {
    const auto group = next++;
    auto& [name, keys] = *group;
    if (GroupDiscriminator::IsRestrictedGroup(name)) {
      documents.user.RemoveGroup(group);
      continue;
    }
    own = FindFrom(groups, own, name);
    const bool isThere = own != groups.end() && own->first == name;
    const bool isShared =
        name != _recordGroup && !restricted.HasGroup(name) && (!isThere || CountMissingKeys(keys, own->second) == 0);
    if (!isShared) {
      documents.all.MergeGroup(group);
      continue;
    }
    if (!isThere) own = groups.try_emplace(own, name);
    documents.shared.Add(keys, keys.size());
    own->second.swap(keys);
    keys.clear();
  }
  if (documents.shared.IsEmpty()) documents.shared = SharedPlaces();  // without the memory for all
}

void StoreLoader::MergeRestrictedSettings(Documents& documents, IniFile restricted) const {
  for (auto group = restricted.begin(); group != restricted.end(); ++group) {
    if (IsLayered(group->first, _recordGroup)) documents.hidden.restricted.MergeGroup(group);
  }
  HideReplaced(documents.all, documents.user, documents.hidden.restricted, documents.hidden.defaults);
  documents.all.MergeSettings(std::move(restricted));
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
