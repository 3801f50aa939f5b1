#include "tavix/settings/server/SettingsManager.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/DeletedGroupsRecord.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/EarlyMatches.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/IRestrictedSettingsLoader.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/NoticeText.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreText.h"
#include "tavix/settings/server/TextInParts.h"
#include "tavix/settings/server/UnrestrictedPart.h"

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

std::vector<IniFile::const_iterator> GroupsOf(const IniFile& document) {
  std::vector<IniFile::const_iterator> groups;
  for (auto group = document.begin(); group != document.end(); ++group) groups.push_back(group);
  return groups;
}

// Not followed by the analysis of locks: the constructor's lock may have waited for this call.
void LockToLoad(osa::ReadWriteLock& lock, bool isLocked) TAVIX_ACQUIRE(lock) TAVIX_NO_THREAD_SAFETY_ANALYSIS {
  if (!isLocked) lock.WriteLock(kWaitForever);
}

void ThrowIfStopped(const SettingsManager::BetweenParts& between) {
  if (between.isStopped && between.isStopped()) throw osa::Exception("The text of the settings is not wanted any more");
}

}  // namespace

SettingsManager::SettingsManager()
    : _persister(nullptr),
      _restrictedLoader(nullptr),
      _includeFilter(nullptr),
      _loadPriorityFilter(new LoadPriorityIncludeFilter),
      _changeRecorders(new ChangeRecorders),
      _settingsMutex("SettingsMutex"),
      _record(new DeletedGroupsRecord(kDeletedGroups)),
      _account(new StoreAccount),
      _notificationGate(kGateName) {}

SettingsManager::SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                                 IIncludeFilter* includeFilter, bool deferLoad)
    : SettingsManager() {
  _persister = persister;
  _restrictedLoader = restrictedLoader;
  _includeFilter = includeFilter;
  _settingsMutex.WriteLock(kWaitForever);
  _isLockedToLoad = true;
  if (!deferLoad) LoadSettings();
}

SettingsManager::~SettingsManager() = default;

void SettingsManager::LoadSettings() {
  if (!_persister) return;
  LockToLoad(_settingsMutex, _isLockedToLoad.exchange(false));
  osa::AdoptedWriteLock lock(_settingsMutex);
  BeginChange();
  ClearAll();
  try {
    LoadAll();
    CountAnew();
  } catch (...) {
    ClearAll();
    CountAnew();
    throw;
  }
  _changeRecorders->Note(_allSettings);
}

// The caller holds the write lock, here and in the next three.
void SettingsManager::ClearAll() {
  _changeRecorders->Note(_allSettings);
  _changeRecorders->Note(_userSettings);
  _allSettings.Clear();
  _userSettings.Clear();
}

void SettingsManager::CountAnew() {
  _record->Read(_userSettings);
  _account->CountAnew(_allSettings, _userSettings);
}

void SettingsManager::LoadAll() {
  SettingsCombiner combiner(_allSettings);
  ConfigureSettingsCombiner(combiner);
  _persister->LoadDefaultSettings(combiner);
  LoadUserLayer();
  RemoveDeletedGroups();
  GroupDiscriminator::FilterOutRestrictedGroups(_allSettings);
  _allSettings.MergeSettings(_userSettings);
  MergeRestrictedSettings();
  _allSettings.RemoveGroup(kDeletedGroups);
}

void SettingsManager::LoadUserSettings() {
  if (!_persister) return;
  LoadUserLayer();
  CountAnew();
}

void SettingsManager::LoadUserLayer() {
  SettingsCombiner combiner(_userSettings);
  _persister->LoadUserSettings(combiner);
  GroupDiscriminator::FilterOutRestrictedGroups(_userSettings);
  _changeRecorders->Note(_userSettings);
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
                                         const ISettingsSerializer& serializer, const BetweenParts& between) const {
  if (!serializer.CanWriteGroups()) {
    ThrowIfStopped(between);
    if (between.onLast) between.onLast();
    return WriteGroups(os, matcher, serializer);
  }
  const GroupWalk walk(matcher);
  TextInParts text(walk, serializer);
  CollectText(text, _allSettings, between);
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

void SettingsManager::DumpUserSettingsInParts(std::ostream& os, const BetweenParts& between) const {
  DumpInParts(os, _userSettings, between);
}

void SettingsManager::DumpAllSettingsInParts(std::ostream& os, const BetweenParts& between) const {
  DumpInParts(os, _allSettings, between);
}

void SettingsManager::DumpInParts(std::ostream& os, const IniFile& document, const BetweenParts& between) const {
  TextInParts text;
  CollectText(text, document, between);
  text.MoveTo(os);
}

// document: one of the store's own.
void SettingsManager::CollectText(TextInParts& text, const IniFile& document, const BetweenParts& between) const {
  ChangeRecorder recorder(*_changeRecorders);
  const TextInParts::Reader read = [&](const std::function<void(const IniFile&)>& makePart) {
    ThrowIfStopped(between);
    ReadAutoLock lock(_settingsMutex);
    makePart(document);
  };
  text.Collect(read, [&] { return recorder.Take(); });
  if (between.onLast) between.onLast();
  read([&](const IniFile& settings) { text.Update(settings, recorder.Take()); });
}

void SettingsManager::ReadUserSettings(const std::function<void(const IniFile&)>& reader) const {
  ReadAutoLock lock(_settingsMutex);
  reader(_userSettings);
}

SettingsManager::Sizes SettingsManager::GetSizes() const {
  Sizes sizes;
  ReadAutoLock lock(_settingsMutex);
  sizes.allGroups = _allSettings.GetGroups().size();
  sizes.allKeys = _account->GetAllTally().CountKeys();
  sizes.userGroups = _userSettings.GetGroups().size();
  sizes.userKeys = _account->GetUserTally().CountKeys();
  const auto record = _userSettings.GetGroups().find(kDeletedGroups);
  if (record != _userSettings.GetGroups().end()) {
    --sizes.userGroups;
    sizes.userKeys -= record->second.size();
  }
  return sizes;
}

size_t SettingsManager::CountNameBytes() const {
  return _account->GetAllTally().CountNameBytes();
}

void SettingsManager::SetMaxBytes(size_t bytes) {
  _account->SetBound(bytes);
}

void SettingsManager::SetMaxDeletedPatterns(size_t count) {
  _maxDeletedPatterns = count;
}

size_t SettingsManager::GetApproximateBytes() const {
  return _account->GetBytes();
}

size_t SettingsManager::CountApproximateBytes(const IniFile& document) {
  return StoreAccount::Count(document);
}

void SettingsManager::MergeSettings(const IniFile& settings, unsigned int flags) {
  RefuseInCallback();
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  ValueCopies copies(filtered, !(flags & kNoPersist));
  LateCount lateCount(*_account);
  WriteAutoLock lock(_settingsMutex);
  const bool isSaved = PerformMerge(filtered, copies, lateCount, flags);
  lock.Release();
  if (!isSaved) NoteUnchanged(filtered);
  Notify(filtered);
}

bool SettingsManager::TestAndMerge(const IniFile& test, const IniFile& settings) {
  RefuseInCallback();
  std::optional<ChangeRecorder> recorder;
  if (IsLarge(test)) {
    recorder.emplace(*_changeRecorders);
    if (!HoldsInParts(test)) return false;
  }
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  ValueCopies copies(filtered, true);
  LateCount lateCount(*_account);
  WriteAutoLock lock(_settingsMutex);
  if (recorder ? !HoldsStill(test, recorder->Take()) : !_allSettings.ContainsSettings(test)) return false;
  recorder.reset();  // the change that follows is our own
  const bool isSaved = PerformMerge(filtered, copies, lateCount, 0);
  lock.Release();
  if (!isSaved) NoteUnchanged(filtered);
  Notify(filtered);
  return true;
}

// Each part of it may be tested at another moment. One that does not hold is enough for an answer.
bool SettingsManager::HoldsInParts(const IniFile& test) const {
  constexpr size_t kKeysOfAPart = 1000;
  for (auto group = test.begin(); group != test.end();) {
    ReadAutoLock lock(_settingsMutex);
    for (size_t keys = 0; group != test.end() && keys < kKeysOfAPart; ++group) {
      if (!HoldsValues(_allSettings, group)) return false;
      keys += 1 + group->second.size();
    }
  }
  return true;
}

// What held before, once these groups have changed. The caller holds the write lock.
bool SettingsManager::HoldsStill(const IniFile& test, const std::set<std::string>& changedGroups) const {
  return std::all_of(changedGroups.begin(), changedGroups.end(), [&](const std::string& name) {
    const auto group = test.GetGroups().find(name);
    return group == test.end() || HoldsValues(_allSettings, group);
  });
}

void SettingsManager::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  RefuseInCallback();
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  const UnrestrictedPart part(settings);
  const IniFile& filtered = part.Get();
  RemovedGroups removed;
  ValueCopies copies(filtered, true);
  const size_t bytes = StoreAccount::Count(filtered);
  LateCount lateCount(*_account);
  EarlyMatches matches(matcher, _allSettings, _settingsMutex, *_changeRecorders);
  WriteAutoLock lock(_settingsMutex);
  std::set<std::string> changed = matches.Take();
  GroupDiscriminator::FilterOutRestrictedGroups(changed);
  RequirePatterns(_record->CountNewPatterns(_userSettings, groups) +
                  _record->CountNewPatterns(_userSettings, filtered));
  RequireRoomToReplace(changed, filtered, bytes, _record->CountNewBytes(_userSettings, groups));
  BeginChange();
  _changeRecorders->Note(changed);
  _changeRecorders->Note(filtered);
  _changeRecorders->Note(std::set<std::string>{kDeletedGroups});
  lateCount.Subtract(removed.all, removed.user);
  MoveGroups(_allSettings, _account->GetAllTally(), changed, removed.all);
  MoveGroups(_userSettings, _account->GetUserTally(), changed, removed.user);
  MergeIntoAll(filtered, copies, lateCount);
  std::set<std::string> different = MergeIntoUser(filtered, copies, lateCount);
  CompareGroups(removed.user, filtered, different);
  const IniFile recorded = RecordDeletedGroups(groups);
  HideBookkeeping();
  const bool isUnchanged = different.empty() && recorded.IsEmpty();
  if (isUnchanged) {
    Save({}, {});
  } else {
    changed.merge(different);  // default groups go by the record alone
    Save(changed, recorded);
  }
  lock.Release();
  changed.erase(kDeletedGroups);  // readers never saw it, unless it is in the request
  for (const auto& group : filtered) changed.insert(group.first);
  if (isUnchanged && _persister) {
    matcher.AddNamesAndPatterns(changed);
    matcher.AddNameOrPattern(kDeletedGroups);
    _persister->NoteUnchangedGroups(matcher);
  }
  Notify(changed, filtered);
}

// Returns what the record got.
IniFile SettingsManager::RecordDeletedGroups(const std::set<std::string>& groups) {
  _account->Add(static_cast<std::ptrdiff_t>(_record->CountNewBytes(_userSettings, groups)));
  const bool isFirst = !_userSettings.HasGroup(kDeletedGroups);
  IniFile added = _record->Add(_userSettings, groups);
  if (added.IsEmpty()) return added;
  DocumentTally& tally = _account->GetUserTally();
  const size_t members = added.begin()->second.size();
  if (isFirst) {
    tally.OnGroupAdded(kDeletedGroups, members);
  } else {
    tally.OnKeysAdded(members);
  }
  return added;
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

  std::vector<IniFile::const_iterator> matched;
  matcher.GetMatchingGroups(defaults, matched);
  IniFile restored;
  std::set<std::string> saved;
  for (const auto& group : matched) {
    restored.MergeGroup(group);
    saved.insert(saved.end(), group->first);
  }
  IniFile forAll;
  forAll.MergeSettings(restored);
  IniFile forUser;
  forUser.MergeSettings(restored);

  RemovedGroups removed;
  const size_t bytes = StoreAccount::Count(restored);
  LateCount lateCount(*_account);
  EarlyMatches matches(matcher, _userSettings, _settingsMutex, *_changeRecorders);
  WriteAutoLock lock(_settingsMutex);
  std::set<std::string> changed = matches.Take();
  RequireRoomToReplace(changed, restored, bytes, 0);
  BeginChange();
  _changeRecorders->Note(changed);
  _changeRecorders->Note(restored);
  lateCount.Subtract(removed.all, removed.user);
  MoveGroups(_userSettings, _account->GetUserTally(), changed, removed.user);
  MoveGroups(_allSettings, _account->GetAllTally(), changed, removed.all);
  _account->Add(static_cast<std::ptrdiff_t>(2 * bytes));
  lateCount.Subtract(forAll, forUser);
  MoveValues(_userSettings, _account->GetUserTally(), forUser, nullptr);
  MoveValues(_allSettings, _account->GetAllTally(), forAll, nullptr);
  if (changed.count(kDeletedGroups) != 0 || restored.HasGroup(kDeletedGroups)) _record->Read(_userSettings);
  HideBookkeeping();
  CompareGroups(removed.user, restored, saved);
  Save(saved, {});
  lock.Release();
  if (saved.empty()) _persister->NoteUnchangedGroups(matcher);
  for (const auto& group : restored) changed.insert(group.first);
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
  ValueCopies copies(settings, !(flags & kNoPersist));
  LateCount lateCount(*_account);
  if (!PerformMerge(settings, copies, lateCount, flags)) NoteUnchanged(settings);
}

// False when the user layer held it all before, though it was to be saved.
bool SettingsManager::PerformMerge(const IniFile& settings, ValueCopies& copies, LateCount& lateCount,
                                   unsigned int flags) {
  const bool persists = (flags & kNoPersist) == 0;
  if (persists) RequirePatterns(_record->CountNewPatterns(_userSettings, settings));
  RequireRoomToMerge(settings, copies.bytes, persists);
  BeginChange();
  _changeRecorders->Note(settings);
  MergeIntoAll(settings, copies, lateCount);
  if (settings.HasGroup(kDeletedGroups)) HideBookkeeping();
  if (!persists) return true;
  const std::set<std::string> changed = MergeIntoUser(settings, copies, lateCount);
  Save(changed, {});
  return !changed.empty();
}

void SettingsManager::MergeIntoAll(const IniFile& settings, ValueCopies& copies, LateCount& lateCount) {
  if (copies.areMade) {
    _account->Add(static_cast<std::ptrdiff_t>(copies.bytes));
    lateCount.Subtract(copies.all);
    MoveValues(_allSettings, _account->GetAllTally(), copies.all, nullptr);
  } else {
    _account->Merge(_allSettings, _account->GetAllTally(), settings);
  }
}

// Returns the groups that hold something else than before, if anybody wants to know.
std::set<std::string> SettingsManager::MergeIntoUser(const IniFile& settings, ValueCopies& copies,
                                                     LateCount& lateCount) {
  std::set<std::string> changed;
  _record->OnMerge(_userSettings, settings);
  if (copies.areMade) {
    _account->Add(static_cast<std::ptrdiff_t>(copies.bytes));
    lateCount.Subtract(copies.user);
    MoveValues(_userSettings, _account->GetUserTally(), copies.user, _persister ? &changed : nullptr);
  } else {
    if (_persister) changed = FindGroupsToChange(_userSettings, settings);
    _account->Merge(_userSettings, _account->GetUserTally(), settings);
  }
  return changed;
}

// bytes: of the settings, so that what has room anyway is not searched for. The caller holds the write lock, here and
// in the next two.
void SettingsManager::RequireRoomToMerge(const IniFile& settings, size_t bytes, bool persists) const {
  if (_account->HasRoom(bytes * (persists ? 2 : 1))) return;
  _account->RequireRoom(StoreAccount::CountGrowth(_allSettings, settings) +
                        (persists ? StoreAccount::CountGrowth(_userSettings, settings) : 0));
}

// recordBytes: that the record of deleted groups gets besides.
void SettingsManager::RequireRoomToReplace(const std::set<std::string>& removed, const IniFile& settings, size_t bytes,
                                           size_t recordBytes) const {
  if (_account->HasRoom(2 * bytes + recordBytes)) return;
  _account->RequireRoom(StoreAccount::CountGrowth(_allSettings, _userSettings, removed, GroupsOf(settings)) +
                        static_cast<std::ptrdiff_t>(recordBytes));
}

void SettingsManager::RequirePatterns(size_t newPatterns) const {
  const size_t max = _maxDeletedPatterns;
  if (max == 0 || newPatterns == 0 || _record->CountPatterns() + newPatterns <= max) return;
  throw RefusedChange(RefusedChange::Reason::kDeletedPatterns,
                      "the record of deleted groups holds " + std::to_string(_record->CountPatterns()) +
                          " patterns of the " + std::to_string(max) + " allowed, and would get " +
                          std::to_string(newPatterns) + " more");
}

// A power cut may still take back what this request finds done already.
void SettingsManager::NoteUnchanged(const IniFile& settings) const {
  if (!_persister) return;
  GroupNameMatcher matcher;
  for (const auto& group : settings) matcher.AddNameOrPattern(group.first);
  _persister->NoteUnchangedGroups(matcher);
}

// The caller holds the write lock.
void SettingsManager::BeginChange() {
  static std::atomic<unsigned long long> last{0};
  _version.store(last.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_release);
}

void SettingsManager::HideBookkeeping() {
  _account->RemoveGroup(_allSettings, _account->GetAllTally(), kDeletedGroups);
}

// Better refused before the change than found out when it is to be announced.
void SettingsManager::RefuseInCallback() const {
  if (_notificationGate.IsHeldByThisThread())
    throw osa::Exception("A change callback must not change the store that it is told about");
}

// added: what the record alone has got.
void SettingsManager::Save(const std::set<std::string>& changedGroups, const IniFile& added) {
  if (!_persister) return;
  if (added.IsEmpty()) {
    _persister->SaveChangedGroups(_userSettings, changedGroups);
  } else {
    _persister->SaveAddedSettings(_userSettings, changedGroups, added);
  }
}

void SettingsManager::Notify(const std::set<std::string>& changedGroups, const IniFile& settings) const {
  const NoticeText::Round round;
  _callbackDispatcher.OnChange(_notificationGate, changedGroups, settings);
}

void SettingsManager::Notify(const IniFile& settings) const {
  const NoticeText::Round round;
  _callbackDispatcher.OnChange(_notificationGate, settings);
}

}  // namespace tavix::settings::server
