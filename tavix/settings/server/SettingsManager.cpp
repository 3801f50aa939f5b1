#include "tavix/settings/server/SettingsManager.h"

#include <utility>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeRecorder.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tavix/settings/server/StoreChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tavix/settings/server/StoreLoader.h"
#include "tavix/settings/server/StoreText.h"
#include "tavix/settings/server/TextInParts.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;
using osa::kWaitForever;
using osa::ReadAutoLock;

namespace {

GroupNameMatcher MatcherFor(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

using Which = StoreDocuments::Which;

// Not followed by the analysis of locks: the constructor's lock may have waited for this call.
void LockToLoad(osa::ReadWriteLock& lock, bool isLocked) TAVIX_ACQUIRE(lock) TAVIX_NO_THREAD_SAFETY_ANALYSIS {
  if (!isLocked) lock.WriteLock(kWaitForever);
}

void ThrowIfStopped(const SettingsManager::BetweenParts& between) {
  if (between.isStopped && between.isStopped()) throw osa::Exception("The text of the settings is not wanted any more");
}

void CollectText(TextInParts& text, const StoreDocuments& documents, Which which,
                 const SettingsManager::BetweenParts& between) {
  ChangeRecorder recorder(documents.GetRecorders());
  const TextInParts::Reader read = [&](const std::function<void(const LayerView&)>& makePart) {
    ThrowIfStopped(between);
    const ReadAutoLock lock(documents.GetLock());
    makePart(documents.Get(which));
  };
  text.Collect(read, [&] { return recorder.Take(); });
  if (between.onLast) between.onLast();
  read([&](const LayerView& settings) { text.Update(settings, recorder.Take()); });
}

void DumpInParts(std::ostream& os, const StoreDocuments& documents, Which which,
                 const SettingsManager::BetweenParts& between) {
  TextInParts text;
  CollectText(text, documents, which, between);
  text.MoveTo(os);
}

// False when the request's test fails.
bool MakeChange(StoreChange change, ChangeTicket& ticket) {
  const bool isMade = change.Make();
  ticket = change.GetTicket();
  return isMade;
}

}  // namespace

SettingsManager::SettingsManager() : SettingsManager(nullptr, nullptr, nullptr) {}

SettingsManager::SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                                 IIncludeFilter* includeFilter, bool deferLoad)
    : SettingsManager(persister, restrictedLoader, includeFilter) {
  _documents->GetLock().WriteLock(kWaitForever);
  _isLockedToLoad = true;
  if (!deferLoad) LoadSettings();
}

SettingsManager::SettingsManager(ISettingsPersister* persister, IRestrictedSettingsLoader* restrictedLoader,
                                 IIncludeFilter* includeFilter)
    : _persister(persister),
      _loader(new StoreLoader(persister, restrictedLoader, includeFilter, kDeletedGroups)),
      _documents(new StoreDocuments(kDeletedGroups)),
      _notifier(new ChangeNotifier) {}

SettingsManager::~SettingsManager() = default;

void SettingsManager::LoadSettings() {
  if (!_persister) return;
  StoreDocuments& documents = *_documents;
  LockToLoad(documents.GetLock(), _isLockedToLoad.exchange(false));
  const osa::AdoptedWriteLock lock(documents.GetLock());
  StoreChange::ReplaceAll(documents, {}, {});
  StoreLoader::Documents loaded = _loader->Load();
  StoreChange::ReplaceAll(documents, std::move(loaded.all), std::move(loaded.user), std::move(loaded.hidden),
                          std::move(loaded.shared));
}

// Not followed by the analysis of locks: the caller holds the lock, and can't name it.
void SettingsManager::LoadUserSettings() TAVIX_NO_THREAD_SAFETY_ANALYSIS {
  if (!_persister) return;
  IniFile user = LayerView(_documents->GetUser()).Copy();
  _loader->LoadUserSettings(user);
  StoreChange::ReplaceUser(*_documents, std::move(user));
}

void SettingsManager::ConfigureSettingsCombiner(SettingsCombiner& combiner) const {
  _loader->ConfigureSettingsCombiner(combiner);
}

void SettingsManager::GetGroups(IniFile& out, const GroupNameMatcher& matcher) const {
  const ReadAutoLock lock(_documents->GetLock());
  std::vector<IniFile::const_iterator> matched;
  matcher.GetMatchingGroups(_documents->GetAll(), matched);
  for (const auto& group : matched) out.MergeGroup(group);
}

void SettingsManager::GetGroups(IniFile& out, const std::string& nameOrPattern) const {
  GetGroups(out, MatcherFor(nameOrPattern));
}

std::optional<std::string> SettingsManager::FindValue(const std::string& group, const std::string& key) const {
  const ReadAutoLock lock(_documents->GetLock());
  const auto keys = _documents->GetAll().GetGroups().find(group);
  if (keys == _documents->GetAll().GetGroups().end()) return std::nullopt;
  const auto value = keys->second.find(key);
  return value == keys->second.end() ? std::nullopt : std::optional<std::string>(value->second);
}

void SettingsManager::WriteGroups(std::ostream& os, const GroupNameMatcher& matcher,
                                  const ISettingsSerializer& serializer) const {
  const ReadAutoLock lock(_documents->GetLock());
  serializer.OnSerialize(_documents->GetAll(), matcher, os);
}

bool SettingsManager::TryWriteGroups(std::ostream& os, const GroupNameMatcher& matcher,
                                     const ISettingsSerializer& serializer, size_t maxWork) const {
  const ReadAutoLock lock(_documents->GetLock());
  return server::TryWriteGroups(os, _documents->GetAll(), matcher, serializer, maxWork);
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
  CollectText(text, *_documents, Which::kAll, between);
  serializer.WriteBegin(os, text.CountGroups());
  text.MoveTo(os);
  serializer.WriteEnd(os);
}

void SettingsManager::DumpUserSettings(std::ostream& os) const {
  const ReadAutoLock lock(_documents->GetLock());
  const LayerView user = _documents->GetUser();
  for (auto place = user.GetBegin(); place != user.GetEnd(); ++place)
    IniFile::SaveGroupToStream(os, user.Resolve(place));
}

void SettingsManager::DumpAllSettings(std::ostream& os) const {
  const ReadAutoLock lock(_documents->GetLock());
  _documents->GetAll().SaveToStream(os);
}

void SettingsManager::DumpUserSettingsInParts(std::ostream& os, const BetweenParts& between) const {
  DumpInParts(os, *_documents, Which::kUser, between);
}

void SettingsManager::DumpAllSettingsInParts(std::ostream& os, const BetweenParts& between) const {
  DumpInParts(os, *_documents, Which::kAll, between);
}

void SettingsManager::ReadUserSettings(const std::function<void(const LayerView&)>& reader) const {
  const ReadAutoLock lock(_documents->GetLock());
  reader(_documents->GetUser());
}

SettingsManager::Sizes SettingsManager::GetSizes() const {
  Sizes sizes;
  const ReadAutoLock lock(_documents->GetLock());
  sizes.allGroups = _documents->GetAll().GetGroups().size();
  sizes.allKeys = _documents->GetAccount().GetAllTally().CountKeys();
  const UserLayer& user = _documents->GetUser();
  sizes.userGroups = user.GetGroups().GetGroups().size();
  sizes.userKeys = _documents->GetAccount().GetUserTally().CountKeys() + user.CountSharedKeys();
  const auto record = user.GetGroups().GetGroups().find(kDeletedGroups);
  if (record != user.GetGroups().end()) {
    --sizes.userGroups;
    sizes.userKeys -= record->second.size();
  }
  return sizes;
}

size_t SettingsManager::CountNameBytes() const {
  return _documents->GetAccount().GetAllTally().CountNameBytes();
}

unsigned long long SettingsManager::GetVersion() const {
  return _documents->GetVersion();
}

void SettingsManager::SetMaxBytes(size_t bytes) {
  _documents->SetMaxBytes(bytes);
}

void SettingsManager::SetMaxDeletedPatterns(size_t count) {
  _documents->SetMaxDeletedPatterns(count);
}

size_t SettingsManager::GetApproximateBytes() const {
  return _documents->GetAccount().GetBytes();
}

size_t SettingsManager::CountApproximateBytes(const IniFile& document) {
  return StoreAccount::Count(document);
}

void SettingsManager::MergeSettings(const IniFile& settings, unsigned int flags) {
  ChangeTicket ignored = 0;
  MergeSettings(settings, flags, ignored);
}

void SettingsManager::MergeSettings(const IniFile& settings, unsigned int flags, ChangeTicket& ticket) {
  MergeSettings(settings, flags, ChangeOrigin(), ticket);
}

void SettingsManager::MergeSettings(const IniFile& settings, unsigned int flags, const ChangeOrigin& origin,
                                    ChangeTicket& ticket) {
  ChangeRequest request;
  request.SetOrigin(origin);
  request.MergeUnrestricted(settings);
  if (flags & kNoPersist) request.KeepUserSettings();
  static_cast<void>(MakeChange({*_documents, _persister, *_notifier, request}, ticket));
}

bool SettingsManager::TestAndMerge(const IniFile& test, const IniFile& settings) {
  ChangeTicket ignored = 0;
  return TestAndMerge(test, settings, ignored);
}

bool SettingsManager::TestAndMerge(const IniFile& test, const IniFile& settings, ChangeTicket& ticket) {
  return TestAndMerge(test, settings, ChangeOrigin(), ticket);
}

bool SettingsManager::TestAndMerge(const IniFile& test, const IniFile& settings, const ChangeOrigin& origin,
                                   ChangeTicket& ticket) {
  ChangeRequest request;
  request.SetOrigin(origin);
  request.SetTest(test);
  request.MergeUnrestricted(settings);
  return MakeChange({*_documents, _persister, *_notifier, request}, ticket);
}

bool SettingsManager::Amend(const Amendment& amendment) {
  ChangeTicket ignored = 0;
  return Amend(amendment, ChangeOrigin(), ignored);
}

bool SettingsManager::Amend(const Amendment& amendment, const ChangeOrigin& origin, ChangeTicket& ticket) {
  ticket = 0;
  AmendmentPlan plan(amendment);
  return StoreChange::Amend(*_documents, _persister, *_notifier, plan, {}, origin, ticket);
}

bool SettingsManager::Amend(const StoreAmendment& amendment, const ChangeOrigin& origin, ChangeTicket& ticket) {
  ticket = 0;
  AmendmentPlan plan(amendment, amendment.drop);
  return StoreChange::Amend(*_documents, _persister, *_notifier, plan, {}, origin, ticket);
}

bool SettingsManager::AmendAsChosen(const StoreAmendment& early, const ChooseAmendment& choose,
                                    const ChangeOrigin& origin, ChangeTicket& ticket) {
  ticket = 0;
  AmendmentPlan earlyPlan(early, early.drop);
  std::optional<AmendmentPlan> plan;
  const auto choosePlan = [&](const LayerView& user) -> AmendmentPlan* {
    const StoreAmendment* const chosen = choose(user);
    if (!chosen) return nullptr;
    if (chosen == &early) return &earlyPlan;
    plan.emplace(*chosen, chosen->drop);
    return plan->IsSound() ? &*plan : nullptr;
  };
  return StoreChange::Amend(*_documents, _persister, *_notifier, earlyPlan, choosePlan, origin, ticket);
}

void SettingsManager::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings) {
  ChangeTicket ignored = 0;
  OverwriteSettings(groups, settings, ignored);
}

void SettingsManager::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings,
                                        ChangeTicket& ticket) {
  OverwriteSettings(groups, settings, ChangeOrigin(), ticket);
}

void SettingsManager::OverwriteSettings(const std::set<std::string>& groups, const IniFile& settings,
                                        const ChangeOrigin& origin, ChangeTicket& ticket) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  ChangeRequest request;
  request.SetOrigin(origin);
  request.RemoveVisible(matcher, groups);
  request.MergeUnrestricted(settings);
  static_cast<void>(MakeChange({*_documents, _persister, *_notifier, request}, ticket));
}

void SettingsManager::OverwriteSettings(const std::string& group, const IniFile& settings) {
  OverwriteSettings(std::set<std::string>{group}, settings);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher) {
  ChangeTicket ignored = 0;
  RestoreToDefaults(matcher, ignored);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher, ChangeTicket& ticket) {
  RestoreToDefaults(matcher, ChangeOrigin(), ticket);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher, const ChangeOrigin& origin,
                                        ChangeTicket& ticket) {
  ticket = 0;
  if (!_persister) return;
  _notifier->RefuseInCallback();
  const IniFile defaults = _loader->LoadDefaults(matcher);
  ChangeRequest request;
  request.SetOrigin(origin);
  request.RemoveUser(matcher);
  request.Merge(defaults);
  static_cast<void>(MakeChange({*_documents, _persister, *_notifier, request}, ticket));
}

// As LoadUserSettings.
void SettingsManager::PerformMergeUnlocked(const IniFile& settings,
                                           unsigned int flags) TAVIX_NO_THREAD_SAFETY_ANALYSIS {
  ChangeRequest request;
  request.Merge(settings);
  if (flags & kNoPersist) request.KeepUserSettings();
  StoreChange(*_documents, _persister, *_notifier, request).MakeLocked();
}

void SettingsManager::Subscribe(IChangeCallback* cb, const GroupNameMatcher& matcher) {
  _notifier->GetDispatcher().AddCallback(cb, matcher);
}

void SettingsManager::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  _notifier->GetDispatcher().AddCallback(cb, groups);
}

void SettingsManager::Subscribe(IChangeCallback* cb, const std::string& nameOrPattern) {
  _notifier->GetDispatcher().AddCallback(cb, MatcherFor(nameOrPattern));
}

void SettingsManager::Unsubscribe(IChangeCallback* cb) {
  _notifier->GetDispatcher().RemoveCallback(cb);
}

void SettingsManager::GetAllSubscribedGroups(std::set<std::string>& out) const {
  _notifier->GetDispatcher().GetAllSubscribedGroups(out);
}

const common::CallbackDispatcher& SettingsManager::GetDispatcher() const {
  return _notifier->GetDispatcher();
}

void SettingsManager::SetCallsInPieces(bool callsInPieces) {
  _notifier->GetDispatcher().SetCallsInPieces(callsInPieces);
}

void SettingsManager::SetMaxAlikePatterns(size_t max) {
  _notifier->GetDispatcher().SetMaxAlikePatterns(max);
}

osa::Mutex& SettingsManager::GetNotificationGate() const {
  return _notifier->GetGate();
}

}  // namespace tavix::settings::server
