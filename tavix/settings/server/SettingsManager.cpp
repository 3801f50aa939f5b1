#include "tavix/settings/server/SettingsManager.h"

#include <algorithm>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/NoticeText.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/StoreText.h"
#include "tavix/settings/server/TextInParts.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;
using osa::kWaitForever;
using osa::ReadAutoLock;
using osa::WriteAutoLock;

namespace {

constexpr char kGateName[] = "notification gate";

GroupNameMatcher MatcherFor(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

// What of a document may be written: the document itself, unless something has to be left out.
class UnrestrictedPart {
 public:
  explicit UnrestrictedPart(const IniFile& settings)
      : _isWhole(std::none_of(settings.begin(), settings.end(),
                              [](const auto& group) { return GroupDiscriminator::IsRestrictedGroup(group.first); })),
        _whole(settings) {
    if (!_isWhole) GroupDiscriminator::MergeUnrestrictedGroups(_part, settings);
  }

  const IniFile& Get() const { return _isWhole ? _whole : _part; }

 private:
  const bool _isWhole;
  const IniFile& _whole;
  IniFile _part;
};

// The groups of which "change" sets something that "document" does not hold.
std::set<std::string> FindGroupsToChange(const IniFile& document, const IniFile& change) {
  std::set<std::string> differing;
  for (const auto& [name, keys] : change) {
    const auto group = document.GetGroups().find(name);
    const auto isSet = [&](const auto& setting) {
      const auto key = group->second.find(setting.first);
      return key != group->second.end() && key->second == setting.second;
    };
    const bool isSame = group != document.GetGroups().end() && std::all_of(keys.begin(), keys.end(), isSet);
    if (!isSame) differing.insert(name);
  }
  return differing;
}

// Groups of the user layer as they are before a change, to find out which of them it changes.
class GroupsBefore {
 public:
  GroupsBefore(const IniFile& document, const std::set<std::string>& names) : _names(names) {
    for (const std::string& name : names) {
      const auto group = document.GetGroups().find(name);
      if (group != document.GetGroups().end()) _groups.MergeGroup(group);
    }
  }

  std::set<std::string> FindDifferent(const IniFile& after) const {
    std::set<std::string> different;
    for (const std::string& name : _names) {
      const auto was = _groups.GetGroups().find(name);
      const auto is = after.GetGroups().find(name);
      const bool wasThere = was != _groups.GetGroups().end();
      const bool isThere = is != after.GetGroups().end();
      if (wasThere != isThere || (isThere && was->second != is->second)) different.insert(name);
    }
    return different;
  }

 private:
  const std::set<std::string> _names;
  IniFile _groups;
};

void ThrowIfStopped(const SettingsManager::StopRequest& isStopped) {
  if (isStopped && isStopped()) throw osa::Exception("The text of the settings is not wanted any more");
}

}  // namespace

SettingsManager::SettingsManager()
    : _persister(nullptr),
      _restrictedLoader(nullptr),
      _includeFilter(nullptr),
      _loadPriorityFilter(new LoadPriorityIncludeFilter),
      _changeRecorders(new ChangeRecorders),
      _settingsMutex("SettingsMutex"),
      _notificationGate(kGateName) {}

SettingsManager::SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                                 IIncludeFilter* includeFilter, bool deferLoad)
    : SettingsManager() {
  _persister = persister;
  _restrictedLoader = restrictedLoader;
  _includeFilter = includeFilter;
  _settingsMutex.WriteLock(kWaitForever);
  if (!deferLoad) LoadSettings();
}

SettingsManager::~SettingsManager() = default;

void SettingsManager::LoadSettings() {
  if (!_persister) return;
  BeginChange();
  SettingsCombiner combiner(_allSettings);
  ConfigureSettingsCombiner(combiner);
  _persister->LoadDefaultSettings(combiner);
  LoadUserSettings();
  RemoveDeletedGroups();
  GroupDiscriminator::FilterOutRestrictedGroups(_allSettings);
  _allSettings.MergeSettings(_userSettings);
  MergeRestrictedSettings();
  HideBookkeeping();
  _settingsMutex.Release();
}

void SettingsManager::LoadUserSettings() {
  if (!_persister) return;
  SettingsCombiner combiner(_userSettings);
  _persister->LoadUserSettings(combiner);
  GroupDiscriminator::FilterOutRestrictedGroups(_userSettings);
}

void SettingsManager::RemoveDeletedGroups() {
  if (!_userSettings.HasGroup(kDeletedGroups)) return;
  GroupNameMatcher deleted;
  for (const auto& entry : _userSettings[kDeletedGroups]) deleted.AddNameOrPattern(entry.second);
  std::set<std::string> groups;
  deleted.GetMatchingGroups(_allSettings, groups);
  for (const std::string& group : groups) _allSettings.RemoveGroup(group);
}

void SettingsManager::MergeRestrictedSettings() {
  if (!_restrictedLoader) return;
  IniFile restricted;
  SettingsCombiner combiner(restricted);
  ConfigureSettingsCombiner(combiner);
  _restrictedLoader->LoadRestrictedSettings(combiner);
  _allSettings.MergeSettings(std::move(restricted));
}

void SettingsManager::ConfigureSettingsCombiner(SettingsCombiner& combiner) const {
  if (_includeFilter) combiner.AddFilter(_includeFilter);
  combiner.AddFilter(_loadPriorityFilter.get());
}

void SettingsManager::GetGroups(IniFile& out, const GroupNameMatcher& matcher) const {
  ReadAutoLock lock(_settingsMutex);
  std::vector<IniFile::const_iterator> matched;
  matcher.GetMatchingGroups(_allSettings, matched);
  for (const auto& group : matched) out.MergeGroup(group);
}

void SettingsManager::GetGroups(IniFile& out, const std::string& nameOrPattern) const {
  GetGroups(out, MatcherFor(nameOrPattern));
}

void SettingsManager::WriteGroups(std::ostream& os, const GroupNameMatcher& matcher,
                                  const ISettingsSerializer& serializer) const {
  ReadAutoLock lock(_settingsMutex);
  serializer.OnSerialize(_allSettings, matcher, os);
}

bool SettingsManager::TryWriteGroups(std::ostream& os, const GroupNameMatcher& matcher,
                                     const ISettingsSerializer& serializer, size_t maxWork) const {
  ReadAutoLock lock(_settingsMutex);
  return server::TryWriteGroups(os, _allSettings, matcher, serializer, maxWork);
}

void SettingsManager::WriteGroupsInParts(std::ostream& os, const GroupNameMatcher& matcher,
                                         const ISettingsSerializer& serializer, const StopRequest& isStopped) const {
  if (!serializer.CanWriteGroups()) {
    ThrowIfStopped(isStopped);
    return WriteGroups(os, matcher, serializer);
  }
  const GroupWalk walk(matcher);
  TextInParts text(walk, serializer);
  CollectText(text, _allSettings, isStopped);
  serializer.WriteBegin(os, text.CountGroups());
  text.MoveTo(os);
  serializer.WriteEnd(os);
}

void SettingsManager::DumpUserSettings(std::ostream& os) const {
  ReadAutoLock lock(_settingsMutex);
  _userSettings.SaveToStream(os);
}

void SettingsManager::DumpAllSettings(std::ostream& os) const {
  ReadAutoLock lock(_settingsMutex);
  _allSettings.SaveToStream(os);
}

void SettingsManager::DumpUserSettingsInParts(std::ostream& os, const StopRequest& isStopped) const {
  DumpInParts(os, _userSettings, isStopped);
}

void SettingsManager::DumpAllSettingsInParts(std::ostream& os, const StopRequest& isStopped) const {
  DumpInParts(os, _allSettings, isStopped);
}

void SettingsManager::DumpInParts(std::ostream& os, const IniFile& document, const StopRequest& isStopped) const {
  TextInParts text;
  CollectText(text, document, isStopped);
  text.MoveTo(os);
}

// document: one of the store's own.
void SettingsManager::CollectText(TextInParts& text, const IniFile& document, const StopRequest& isStopped) const {
  ChangeRecorder recorder(*_changeRecorders);
  const TextInParts::Reader read = [&](const std::function<void(const IniFile&)>& makePart) {
    ThrowIfStopped(isStopped);
    ReadAutoLock lock(_settingsMutex);
    makePart(document);
  };
  text.Collect(read, [&] { return recorder.Take(); });
  read([&](const IniFile& settings) { text.Update(settings, recorder.Take()); });
}

void SettingsManager::ReadUserSettings(const std::function<void(const IniFile&)>& reader) const {
  ReadAutoLock lock(_settingsMutex);
  reader(_userSettings);
}

SettingsManager::Sizes SettingsManager::GetSizes() const {
  Sizes sizes;
  ReadAutoLock lock(_settingsMutex);
  for (const auto& group : _allSettings) {
    ++sizes.allGroups;
    sizes.allKeys += group.second.size();
  }
  for (const auto& group : _userSettings) {
    if (group.first == kDeletedGroups) continue;
    ++sizes.userGroups;
    sizes.userKeys += group.second.size();
  }
  return sizes;
}

void SettingsManager::MergeSettings(const IniFile& settings, unsigned int flags) {
  RefuseInCallback();
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  WriteAutoLock lock(_settingsMutex);
  PerformMergeUnlocked(filtered, flags);
  lock.Release();
  Notify(filtered);
}

bool SettingsManager::TestAndMerge(const IniFile& test, const IniFile& settings) {
  RefuseInCallback();
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  WriteAutoLock lock(_settingsMutex);
  if (!_allSettings.ContainsSettings(test)) return false;
  PerformMergeUnlocked(filtered, 0);
  lock.Release();
  Notify(filtered);
  return true;
}

void SettingsManager::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  RefuseInCallback();
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  WriteAutoLock lock(_settingsMutex);
  std::set<std::string> changed;
  matcher.GetMatchingGroups(_allSettings, changed);
  GroupDiscriminator::FilterOutRestrictedGroups(changed);
  std::set<std::string> touched = changed;
  touched.insert(kDeletedGroups);
  for (const auto& group : filtered) touched.insert(group.first);
  const GroupsBefore before(_userSettings, touched);
  BeginChange();
  _changeRecorders->Note(touched);
  for (const std::string& group : changed) {
    _allSettings.RemoveGroup(group);
    _userSettings.RemoveGroup(group);
  }
  _allSettings.MergeSettings(filtered);
  _userSettings.MergeSettings(filtered);
  _userSettings.ValueListAppendUnique(kDeletedGroups, groups);
  HideBookkeeping();
  std::set<std::string> saved = before.FindDifferent(_userSettings);
  if (!saved.empty()) saved.insert(changed.begin(), changed.end());  // default groups go by the record alone
  Save(saved);
  lock.Release();
  for (const auto& group : filtered) changed.insert(group.first);
  Notify(changed, filtered);
}

void SettingsManager::OverwriteSettings(const std::string& group, const IniFile& settings) {
  OverwriteSettings(std::set<std::string>{group}, settings);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher) {
  if (!_persister) return;
  RefuseInCallback();
  IniFile defaults;
  SettingsCombiner combiner(defaults);
  ConfigureSettingsCombiner(combiner);
  _persister->LoadDefaultSettings(combiner);

  IniFile restored;
  WriteAutoLock lock(_settingsMutex);
  std::set<std::string> changed;
  matcher.GetMatchingGroups(_userSettings, changed);
  std::vector<IniFile::const_iterator> matched;
  matcher.GetMatchingGroups(defaults, matched);
  std::set<std::string> touched = changed;
  for (const auto& group : matched) touched.insert(group->first);
  const GroupsBefore before(_userSettings, touched);
  BeginChange();
  _changeRecorders->Note(touched);
  for (const std::string& group : changed) {
    _userSettings.RemoveGroup(group);
    _allSettings.RemoveGroup(group);
  }
  for (const auto& group : matched) {
    _userSettings.MergeGroup(group);
    _allSettings.MergeGroup(group);
    restored.MergeGroup(group);
    changed.insert(group->first);
  }
  HideBookkeeping();
  Save(before.FindDifferent(_userSettings));
  lock.Release();
  Notify(changed, restored);
}

void SettingsManager::Subscribe(IChangeCallback* cb, const GroupNameMatcher& matcher) {
  _callbackDispatcher.AddCallback(cb, matcher);
}

void SettingsManager::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  _callbackDispatcher.AddCallback(cb, groups);
}

void SettingsManager::Subscribe(IChangeCallback* cb, const std::string& nameOrPattern) {
  _callbackDispatcher.AddCallback(cb, MatcherFor(nameOrPattern));
}

void SettingsManager::Unsubscribe(IChangeCallback* cb) {
  _callbackDispatcher.RemoveCallback(cb);
}

void SettingsManager::GetAllSubscribedGroups(std::set<std::string>& out) const {
  _callbackDispatcher.GetAllSubscribedGroups(out);
}

void SettingsManager::PerformMergeUnlocked(const IniFile& settings, unsigned int flags) {
  BeginChange();
  _changeRecorders->Note(settings);
  _allSettings.MergeSettings(settings);
  if (settings.HasGroup(kDeletedGroups)) HideBookkeeping();
  if (flags & kNoPersist) return;
  const std::set<std::string> changed =
      _persister ? FindGroupsToChange(_userSettings, settings) : std::set<std::string>();
  _userSettings.MergeSettings(settings);
  Save(changed);
}

// The caller holds the write lock.
void SettingsManager::BeginChange() {
  static std::atomic<unsigned long long> last{0};
  _version.store(last.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_release);
}

void SettingsManager::HideBookkeeping() {
  _allSettings.RemoveGroup(kDeletedGroups);
}

// Better refused before the change than found out when it is to be announced.
void SettingsManager::RefuseInCallback() const {
  if (_notificationGate.IsHeldByThisThread())
    throw osa::Exception("A change callback must not change the store that it is told about");
}

void SettingsManager::Save(const std::set<std::string>& changedGroups) {
  if (_persister) _persister->SaveChangedGroups(_userSettings, changedGroups);
}

void SettingsManager::Notify(const std::set<std::string>& changedGroups, const IniFile& settings) const {
  osa::MutexAutoLock gate(&_notificationGate, kWaitForever, true);
  const NoticeText::Round round;
  _callbackDispatcher.OnChange(changedGroups, settings);
}

void SettingsManager::Notify(const IniFile& settings) const {
  osa::MutexAutoLock gate(&_notificationGate, kWaitForever, true);
  const NoticeText::Round round;
  _callbackDispatcher.OnChange(settings);
}

}  // namespace tavix::settings::server
