#include "tavix/settings/server/StoreChange.h"

#include <atomic>
#include <cstddef>
#include <utility>
#include <vector>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

StoreAccount::Groups GroupsOf(const IniFile& document) {
  StoreAccount::Groups groups;
  for (auto group = document.begin(); group != document.end(); ++group) groups.push_back(group);
  return groups;
}

}  // namespace

StoreChange::StoreChange(StoreDocuments& documents, ISettingsPersister* persister, const ChangeNotifier& notifier,
                         ChangeRequest& request)
    : _documents(documents),
      _persister(persister),
      _notifier(notifier),
      _request(request),
      _lateCount(documents._account) {}

bool StoreChange::Make() {
  _notifier.RefuseInCallback();
  constexpr int kMaxRounds = 4;
  bool isDone = false;
  for (int round = 1; !isDone; ++round) {
    if (!_request.Prepare(_documents)) return false;
    const osa::WriteAutoLock lock(_documents.GetLock());
    if (_request.IsOutdated() && round < kMaxRounds) continue;
    if (!MakeUnderLock()) return false;
    isDone = true;
  }
  _lateCount.Finish();  // until then the store seems fuller than it is, and others are refused
  if (_isUnchanged) ReportUnchanged();
  Notify();
  return true;
}

void StoreChange::MakeLocked() {
  _request.PrepareLocked(_documents);
  if (MakeUnderLock() && _isUnchanged) ReportUnchanged();
}

void StoreChange::ReplaceAll(StoreDocuments& documents, IniFile all, IniFile user) {
  BeginVersion(documents);
  documents._recorders.Note(documents._all);
  documents._recorders.Note(documents._user);
  documents._recorders.Note(all);
  documents._recorders.Note(user);
  documents._all = std::move(all);
  documents._user = std::move(user);
  documents._record.Read(documents._user);
  documents._account.CountAnew(documents._all, documents._user);
}

bool StoreChange::MakeUnderLock() {
  if (!_request.BringUpToDate(_documents)) return false;
  RequirePatterns();
  RequireRoom();
  BeginVersion(_documents);
  if (_documents._recorders.AreActive()) NoteGroups();
  if (_request.GetPlans()) CarryOutPlans(*_request.GetPlans());
  if (!_request.GetUnplannedNames().empty()) RemoveGroups();
  MergeIntoAll();
  if (!_request.IsPersistent()) return true;
  MergeIntoUser();
  if (_request.GetMembers()) RecordMembers();
  if (_persister) Save();
  return true;
}

void StoreChange::CarryOutPlans(ChangePlans& plans) {
  StoreAccount& account = _documents._account;
  const std::set<std::string>& changedGroups = _request.GetChangedGroups();
  account.Add(static_cast<std::ptrdiff_t>(plans.all.GetBytes()));
  _lateCount.Subtract(plans.all.GetReplaced(), plans.all.GetRemoved());
  plans.all.CarryOut(_documents._all, account.GetAllTally(), changedGroups);
  if (!_request.IsPersistent()) return;
  account.Add(static_cast<std::ptrdiff_t>(plans.user.GetBytes()));
  _lateCount.Subtract(plans.user.GetReplaced(), plans.user.GetRemoved());
  plans.user.CarryOut(_documents._user, account.GetUserTally(), changedGroups);
  if (_request.HasRecord() || _request.GetRemovedNames().count(_documents.GetRecordGroup()) != 0)
    _documents._record.Read(_documents._user);
  _isDifferent = plans.user.HasDifference();
  _different = std::move(plans.user.GetDifferent());
}

// What comes from the defaults has no bound.
void StoreChange::RequirePatterns() const {
  const size_t max = _documents.GetMaxDeletedPatterns();
  const std::set<std::string>* members = _request.GetMembers();
  const bool isRestore = _request.GetRemovedMatcher() && !members;
  if (max == 0 || isRestore || !_request.IsPersistent()) return;
  const DeletedGroupsRecord& record = _documents.GetRecord();
  const size_t newPatterns =
      (_request.HasRecord() ? record.CountNewPatterns(_documents._user, _request.GetSettings()) : 0) +
      (members ? record.CountNewPatterns(_documents._user, *members) : 0);
  if (newPatterns == 0 || record.CountPatterns() + newPatterns <= max) return;
  throw RefusedChange(RefusedChange::Reason::kDeletedPatterns,
                      "the record of deleted groups holds " + std::to_string(record.CountPatterns()) +
                          " patterns of the " + std::to_string(max) + " allowed, and would get " +
                          std::to_string(newPatterns) + " more");
}

// What has room anyway is not searched for.
void StoreChange::RequireRoom() {
  const IniFile& settings = _request.GetSettings();
  const std::set<std::string>* members = _request.GetMembers();
  const StoreAccount& account = _documents._account;
  if (members) _recordBytes = _documents._record.CountNewBytes(_documents._user, *members);
  const size_t copies = _request.IsPersistent() ? 2 : 1;
  if (account.HasRoom(copies * _request.GetBytes() + _recordBytes)) return;
  if (!_request.IsPersistent()) return account.RequireRoom(StoreAccount::CountGrowth(_documents._all, settings));
  account.RequireRoom(
      StoreAccount::CountGrowth(_documents._all, _documents._user, _request.GetRemovedNames(), GroupsOf(settings)) +
      static_cast<std::ptrdiff_t>(_recordBytes));
}

void StoreChange::BeginVersion(StoreDocuments& documents) {
  static std::atomic<unsigned long long> last{0};
  documents._version.store(last.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_release);
}

void StoreChange::NoteGroups() const {
  ChangeRecorders& recorders = _documents._recorders;
  recorders.Note(_request.GetRemovedNames());
  recorders.Note(_request.GetSettings());
  if (const ChangePlans* plans = _request.GetPlans()) {
    recorders.Note(plans->all.GetMoved());
    recorders.Note(plans->user.GetMoved());
  }
  if (_request.GetMembers()) recorders.Note(std::set<std::string>{_documents.GetRecordGroup()});
}

void StoreChange::RemoveGroups() {
  const std::set<std::string>& names = _request.GetUnplannedNames();
  _lateCount.Subtract(_removed.all, _removed.user);
  MoveGroups(_documents._all, _documents._account.GetAllTally(), names, _removed.all);
  MoveGroups(_documents._user, _documents._account.GetUserTally(), names, _removed.user);
  if (names.count(_documents.GetRecordGroup()) != 0) _documents._record.Read(_documents._user);
}

void StoreChange::MergeIntoAll() {
  StoreAccount& account = _documents._account;
  account.Merge(_documents._all, account.GetAllTally(), _request.GetUnplannedSettings());
  if (_request.HasRecord()) account.RemoveGroup(_documents._all, account.GetAllTally(), _documents.GetRecordGroup());
}

// What differs is of interest to the persister alone.
void StoreChange::MergeIntoUser() {
  StoreAccount& account = _documents._account;
  const IniFile& settings = _request.GetUnplannedSettings();
  std::set<std::string> different;
  if (_persister) different = FindGroupsToChange(_documents._user, settings);
  if (_request.HasRecord()) _documents._record.OnMerge(_documents._user, settings);
  account.Merge(_documents._user, account.GetUserTally(), settings);
  if (!_persister) return;
  CompareGroups(_removed.user, settings, different);
  _isDifferent = _isDifferent || !different.empty();
  _different.merge(different);
}

void StoreChange::RecordMembers() {
  const std::set<std::string>& members = *_request.GetMembers();
  IniFile& user = _documents._user;
  StoreAccount& account = _documents._account;
  if (_request.HasRecord()) _recordBytes = _documents._record.CountNewBytes(user, members);  // the values changed it
  account.Add(static_cast<std::ptrdiff_t>(_recordBytes));
  const bool isFirst = !user.HasGroup(_documents.GetRecordGroup());
  _recorded = _documents._record.Add(user, members);
  if (_recorded.IsEmpty()) return;
  const size_t count = _recorded.begin()->second.size();
  if (isFirst) {
    account.GetUserTally().OnGroupAdded(_documents.GetRecordGroup(), count);
  } else {
    account.GetUserTally().OnKeysAdded(count);
  }
}

void StoreChange::Save() {
  static const std::set<std::string> none;
  _isUnchanged = !_isDifferent && _recorded.IsEmpty();
  // Groups of the defaults go by the record alone.
  if (_request.GetMembers())
    _different.insert(_request.GetUnplannedNames().begin(), _request.GetUnplannedNames().end());
  const std::set<std::string>& changed = _isUnchanged ? none : _different;
  if (_recorded.IsEmpty()) {
    _persister->SaveChangedGroups(_documents._user, changed);
  } else {
    _persister->SaveAddedSettings(_documents._user, changed, _recorded);
  }
}

// A power cut may still take back what the request finds done already.
void StoreChange::ReportUnchanged() const {
  GroupNameMatcher groups;
  if (_request.GetRemovedMatcher()) groups = *_request.GetRemovedMatcher();
  groups.AddNamesAndPatterns(_request.GetRemovedNames());
  for (const auto& group : _request.GetSettings()) groups.AddNameOrPattern(group.first);
  if (_request.GetMembers()) groups.AddNameOrPattern(_documents.GetRecordGroup());
  _persister->NoteUnchangedGroups(groups);
}

void StoreChange::Notify() {
  const IniFile& settings = _request.GetSettings();
  if (!_request.GetRemovedMatcher()) return _notifier.Notify(settings);
  std::set<std::string> changed = std::move(_request.GetRemovedNames());
  for (const auto& group : settings) changed.insert(group.first);
  _notifier.Notify(changed, settings);
}

}  // namespace tavix::settings::server
