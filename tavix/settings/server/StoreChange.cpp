#include "tavix/settings/server/StoreChange.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/NoticeRound.h"
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
  NoticeRound notices;
  NotificationReserve reserve(_request.GetSettings());
  bool isDone = false;
  for (int round = 1; !isDone; ++round) {
    if (!_request.Prepare(_documents)) return false;
    const osa::WriteAutoLock lock(_documents.GetLock());
    if (_request.IsOutdated() && round < kMaxRounds) continue;
    if (!MakeUnderLock()) return false;
    isDone = true;
  }
  _lateCount.Finish();  // until then the store seems fuller than it is, and others are refused
  std::exception_ptr failure;
  try {
    FindTicketOfOthers();
  } catch (...) {
    failure = std::current_exception();
  }
  _notifier.Notify(notices, reserve, _request.GetRemovedNames(), _request.GetSettings());
  if (failure) std::rethrow_exception(failure);
  return true;
}

void StoreChange::MakeLocked() {
  _request.PrepareLocked(_documents);
  if (MakeUnderLock()) FindTicketOfOthers();
}

void StoreChange::ReplaceAll(StoreDocuments& documents, IniFile all, IniFile user) {
  documents._record.Read(user);
  documents._account.CountAnew(all, user);
  BeginVersion(documents);
  documents._recorders.Note(documents._all);
  documents._recorders.Note(documents._user);
  documents._recorders.Note(all);
  documents._recorders.Note(user);
  documents._all = std::move(all);
  documents._user = std::move(user);
}

bool StoreChange::MakeUnderLock() {
  if (!_request.BringUpToDate(_documents)) return false;
  PlanRecord();
  RequirePatterns();
  RequireRoom();
  Prepare();
  CarryOut();
  if (_request.IsPersistent() && _persister) Save();
  return true;
}

void StoreChange::PlanRecord() {
  static const std::set<std::string> none;
  const std::set<std::string>* members = _request.GetMembers();
  const bool isRemoved = _request.GetRemovedNames().count(_documents.GetRecordGroup()) != 0;
  if (!_request.IsPersistent() || !(members || isRemoved || _request.HasRecord())) return;
  _record = _documents._record.Plan(_documents._user, isRemoved, _request.GetSettings(), members ? *members : none);
}

// What comes from the defaults has no bound.
void StoreChange::RequirePatterns() const {
  const size_t max = _documents.GetMaxDeletedPatterns();
  const std::set<std::string>* members = _request.GetMembers();
  const bool isRestore = _request.GetRemovedMatcher() && !members;
  if (max == 0 || isRestore || !_request.IsPersistent()) return;
  const size_t recorded = _documents.GetRecord().CountPatterns();
  if (_record.patterns <= 0 || recorded + static_cast<size_t>(_record.patterns) <= max) return;
  throw RefusedChange(RefusedChange::Reason::kDeletedPatterns, "the record of deleted groups holds " +
                                                                   std::to_string(recorded) + " patterns of the " +
                                                                   std::to_string(max) + " allowed, and would get " +
                                                                   std::to_string(_record.patterns) + " more");
}

// How many bytes the new members make of the record, as the store's account counts them.
size_t StoreChange::CountRecordGrowth() const {
  if (_record.added.IsEmpty()) return 0;
  const auto& [name, members] = *_record.added.begin();
  const size_t bytes = StoreAccount::CountGroup(name, members);
  return _documents._user.HasGroup(name) ? bytes - StoreAccount::CountGroup(name, {}) : bytes;
}

// What has room anyway is not searched for.
void StoreChange::RequireRoom() const {
  const IniFile& settings = _request.GetSettings();
  const StoreAccount& account = _documents._account;
  const size_t recordGrowth = CountRecordGrowth();
  const size_t copies = _request.IsPersistent() ? 2 : 1;
  if (account.HasRoom(copies * _request.GetBytes() + recordGrowth)) return;
  if (!_request.IsPersistent()) return account.RequireRoom(StoreAccount::CountGrowth(_documents._all, settings));
  account.RequireRoom(
      StoreAccount::CountGrowth(_documents._all, _documents._user, _request.GetRemovedNames(), GroupsOf(settings)) +
      static_cast<std::ptrdiff_t>(recordGrowth));
}

// All that the change needs memory for.
void StoreChange::Prepare() {
  const IniFile& settings = _request.GetUnplannedSettings();
  const std::set<std::string>& removed = _request.GetUnplannedNames();
  _mergeIntoAll.Prepare(_documents._all, settings, removed);
  if (!_request.IsPersistent()) return;
  _mergeIntoUser.Prepare(_documents._user, settings, removed);
  _mergeIntoUser.Prepare(_documents._user, _record.added, removed);
  if (_persister) PrepareSave();
}

// What differs is of interest to the persister alone.
void StoreChange::PrepareSave() {
  const std::set<std::string>& removed = _request.GetUnplannedNames();
  const ChangePlans* plans = _request.GetPlans();
  _different = FindDifference(_documents._user, removed, _request.GetUnplannedSettings());
  const bool isUnchanged = _different.empty() && !(plans && plans->user.HasDifference()) && _record.added.IsEmpty();
  if (_request.GetMembers()) _different.insert(removed.begin(), removed.end());  // defaults go by the record alone
  if (!isUnchanged) return;
  GroupNameMatcher& held = _held.emplace();
  if (_request.GetRemovedMatcher()) held = *_request.GetRemovedMatcher();
  held.AddNamesAndPatterns(_request.GetRemovedNames());
  for (const auto& group : _request.GetSettings()) held.AddNameOrPattern(group.first);
  if (_request.GetMembers()) held.AddNameOrPattern(_documents.GetRecordGroup());
}

void StoreChange::CarryOut() noexcept {
  StoreAccount& account = _documents._account;
  BeginVersion(_documents);
  if (_documents._recorders.AreActive()) NoteGroups();
  if (_request.GetPlans()) CarryOutPlans(*_request.GetPlans());
  if (!_request.GetUnplannedNames().empty()) RemoveGroups();
  _mergeIntoAll.CarryOut(_documents._all, account, account.GetAllTally());
  if (_request.HasRecord()) account.RemoveGroup(_documents._all, account.GetAllTally(), _documents.GetRecordGroup());
  if (!_request.IsPersistent()) return;
  _mergeIntoUser.CarryOut(_documents._user, account, account.GetUserTally());
  _documents._record.CarryOut(_record);
}

void StoreChange::CarryOutPlans(ChangePlans& plans) noexcept {
  StoreAccount& account = _documents._account;
  const std::set<std::string>& changedGroups = _request.GetChangedGroups();
  account.Add(static_cast<std::ptrdiff_t>(plans.all.GetBytes()));
  _lateCount.Subtract(plans.all.GetReplaced(), plans.all.GetRemoved());
  plans.all.CarryOut(_documents._all, account.GetAllTally(), changedGroups);
  if (!_request.IsPersistent()) return;
  account.Add(static_cast<std::ptrdiff_t>(plans.user.GetBytes()));
  _lateCount.Subtract(plans.user.GetReplaced(), plans.user.GetRemoved());
  plans.user.CarryOut(_documents._user, account.GetUserTally(), changedGroups);
  _different.merge(plans.user.GetDifferent());
}

void StoreChange::BeginVersion(StoreDocuments& documents) {
  static std::atomic<unsigned long long> last{0};
  documents._version.store(last.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_release);
}

void StoreChange::NoteGroups() const noexcept {
  ChangeRecorders& recorders = _documents._recorders;
  recorders.Note(_request.GetRemovedNames());
  recorders.Note(_request.GetSettings());
  if (const ChangePlans* plans = _request.GetPlans()) {
    recorders.Note(plans->all.GetMoved());
    recorders.Note(plans->user.GetMoved());
  }
  if (_request.GetMembers()) recorders.Note(_documents.GetRecordGroup());
}

void StoreChange::RemoveGroups() noexcept {
  const std::set<std::string>& names = _request.GetUnplannedNames();
  _lateCount.Subtract(_removed.all, _removed.user);
  MoveGroups(_documents._all, _documents._account.GetAllTally(), names, _removed.all);
  MoveGroups(_documents._user, _documents._account.GetUserTally(), names, _removed.user);
}

void StoreChange::Save() {
  static const std::set<std::string> none;
  const std::set<std::string>& changed = _held ? none : _different;
  _ticket = _persister->SaveChange({_documents._user, changed, _record.added, _request.GetOrigin()});
}

// A power cut may still take back what the request finds done already.
void StoreChange::FindTicketOfOthers() {
  if (_held) _ticket = std::max(_ticket, _persister->FindLastTicket(*_held));
}

}  // namespace tavix::settings::server
