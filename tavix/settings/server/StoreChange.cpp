#include "tavix/settings/server/StoreChange.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/NoticeRound.h"
#include "tavix/settings/server/PlannedChange.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

// What a change may replace, as SavedChange::before has it.
IniFile CopyOldSettings(const LayerView& user, const std::set<std::string>& different, const IniFile& added) {
  IniFile old = CopyGroups(user, different);
  for (const auto& group : added) {
    const auto own = user.Find(group.first);
    if (own && (*own)->second.empty()) old.MergeGroup(*own);
  }
  return old;
}

// A persister that throws keeps nobody from being notified.
template <class FindTicket, class Notify>
void Announce(FindTicket findTicketOfOthers, Notify notify) {
  std::exception_ptr failure;
  try {
    findTicketOfOthers();
  } catch (...) {
    failure = std::current_exception();
  }
  notify();
  if (failure) std::rethrow_exception(failure);
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
  Announce([this] { FindTicketOfOthers(); },
           [&] { _notifier.Notify(notices, reserve, _request.GetRemovedNames(), _request.GetSettings()); });
  return true;
}

void StoreChange::MakeLocked() {
  _request.PrepareLocked(_documents);
  if (MakeUnderLock()) FindTicketOfOthers();
}

void StoreChange::ReplaceAll(StoreDocuments& documents, IniFile all, IniFile user, HiddenLayers hidden,
                             SharedPlaces&& shared) {
  documents._record.Read(user);
  documents._account.CountAnew(all, user, hidden);
  BeginVersion(documents);
  documents._recorders.Note(documents._all);
  documents._recorders.Note(documents._user.GetGroups());
  documents._recorders.Note(all);
  documents._recorders.Note(user);
  documents._all = std::move(all);
  documents._user.Replace(std::move(user), std::move(shared));
  documents._hidden = std::move(hidden);
}

void StoreChange::ReplaceUser(StoreDocuments& documents, IniFile user) {
  StoreAccount uncounted;  // all is counted anew
  HiddenLayers hidden = documents._hidden;
  HiddenChange change;
  change.Add(documents, user, {}, true);
  change.CarryOut(hidden, uncounted);
  ReplaceAll(documents, documents._all, std::move(user), std::move(hidden));
}

bool StoreChange::Amend(StoreDocuments& documents, ISettingsPersister* persister, const ChangeNotifier& notifier,
                        AmendmentPlan& early, const ChoosePlan& choose, const ChangeOrigin& origin,
                        ChangeTicket& ticket) {
  notifier.RefuseInCallback();
  if (!early.IsSound() || !early.MakeEarly(documents)) return false;
  NoticeRound notices;
  std::optional<NotificationReserve> reserve;
  AmendmentPlan* plan = &early;
  {
    const osa::WriteAutoLock lock(documents.GetLock());
    if (choose) plan = choose(documents._user);
    if (!plan || !plan->Make(documents)) return false;
    if (!origin.isRevert) RequireRoom(documents, *plan);
    Prepare(documents, *plan);
    std::optional<IniFile> before;
    if (persister && persister->NeedsOldSettings())
      before = CopyOldSettings(documents._user, plan->GetDifferent(), plan->GetAddedMembers());
    reserve.emplace(plan->GetChanged());
    if (persister) AskPersister(documents, *persister, *plan, origin);
    CarryOut(documents, *plan);
    if (persister)
      ticket = persister->SaveChange(
          {documents._user, plan->GetDifferent(), plan->GetAddedMembers(), origin, before ? &*before : nullptr});
  }
  const auto findTicketOfOthers = [&] {
    if (persister && plan->GetHeld()) ticket = std::max(ticket, persister->FindLastTicket(*plan->GetHeld()));
  };
  Announce(findTicketOfOthers, [&] { notifier.Notify(notices, *reserve, plan->GetGone(), plan->GetChanged()); });
  return true;
}

void StoreChange::RequireRoom(const StoreDocuments& documents, AmendmentPlan& plan) {
  RequirePatterns(documents, plan.GetRecord().GetCounts().patterns);
  documents._account.RequireRoom(plan.CountGrowth(documents), plan.CountHiddenGrowth(documents));
}

void StoreChange::AskPersister(const StoreDocuments& documents, ISettingsPersister& persister, AmendmentPlan& plan,
                               const ChangeOrigin& origin) {
  std::set<std::string> replaced;
  for (const auto& group : plan.GetReplace()) replaced.insert(replaced.end(), group.first);
  std::set<std::string> removed = replaced;
  for (const auto& group : plan.GetDrop()) {
    if (group.first != documents.GetRecordGroup()) removed.insert(group.first);
  }
  PlannedChange change{documents._user, origin};
  change.removed = &removed;
  change.recorded = &replaced;
  change.unset = &plan.GetUnset();
  change.set = &plan.GetSet();
  change.replaced = &plan.GetReplace();
  change.recordSet = &plan.GetRecord().GetSet();
  change.recordErased = &plan.GetRecord().GetErased();
  persister.PrepareChange(change);
}

// All that it needs memory for.
void StoreChange::Prepare(StoreDocuments& documents, AmendmentPlan& plan) {
  AmendmentPlan::Edits& edits = plan.GetEdits();
  edits.all.Prepare(documents._all);
  edits.user.Prepare(documents._user.GetMutableGroups());
  edits.hiddenDefaults.Prepare(documents._hidden.defaults);
  edits.unsaved.Prepare(documents._hidden.unsaved);
}

void StoreChange::CarryOut(StoreDocuments& documents, AmendmentPlan& plan) noexcept {
  StoreAccount& account = documents._account;
  BeginVersion(documents);
  documents._recorders.Note(plan.GetDifferent());
  documents._recorders.Note(documents._recordGroup);
  AmendmentPlan::Edits& edits = plan.GetEdits();
  DocumentTally unasked;  // nobody asks how much is hidden
  documents._user.Forget(plan.GetUnshared());
  documents._user.AddSharedKeys(plan.CountSharedKeys());
  edits.all.CarryOut(documents._all, account, account.GetAllTally());
  edits.user.CarryOut(documents._user.GetMutableGroups(), account, account.GetUserTally());
  edits.hiddenDefaults.CarryOut(documents._hidden.defaults, account, unasked);
  edits.unsaved.CarryOut(documents._hidden.unsaved, account, unasked);
  documents._record.CarryOut(plan.GetRecord().GetCounts());
}

bool StoreChange::MakeUnderLock() {
  if (!_request.BringUpToDate(_documents)) return false;
  PlanRecord();
  RequirePatterns();
  _hidden.Add(_documents, _request.GetUnplannedSettings(), _request.GetUnplannedNames(), _request.IsPersistent());
  RequireRoom();
  if (!_request.IsPersistent() && _hidden.HasShared())
    _documents._user.Own(_request.GetUnplannedSettings(), _documents._account);
  Prepare();
  if (_persister) AskPersister();
  CarryOut();
  if (_request.IsPersistent() && _persister) Save();
  return true;
}

void StoreChange::AskPersister() const {
  PlannedChange change{_documents._user, _request.GetOrigin(), _request.IsPersistent()};
  change.removed = &_request.GetRemovedNames();
  change.asked = _request.GetRemovedMatcher();
  change.recorded = _request.GetMembers();
  change.set = &_request.GetSettings();
  if (!_record.added.IsEmpty()) change.recordSet = &_record.added.begin()->second;
  _persister->PrepareChange(change);
}

void StoreChange::PlanRecord() {
  static const std::set<std::string> none;
  const std::set<std::string>* members = _request.GetMembers();
  const bool isRemoved = _request.GetRemovedNames().count(_documents.GetRecordGroup()) != 0;
  if (!_request.IsPersistent() || !(members || isRemoved || _request.HasRecord())) return;
  _record = _documents._record.Plan(_documents._user.GetGroups(), isRemoved, _request.GetSettings(),
                                    members ? *members : none);
}

// What comes from the defaults has no bound.
void StoreChange::RequirePatterns() const {
  const bool isRestore = _request.GetRemovedMatcher() && !_request.GetMembers();
  if (!isRestore && _request.IsPersistent()) RequirePatterns(_documents, _record.patterns);
}

void StoreChange::RequirePatterns(const StoreDocuments& documents, std::ptrdiff_t more) {
  const size_t max = documents.GetMaxDeletedPatterns();
  const size_t recorded = documents.GetRecord().CountPatterns();
  if (max == 0 || more <= 0 || recorded + static_cast<size_t>(more) <= max) return;
  throw RefusedChange(RefusedChange::Reason::kDeletedPatterns,
                      "the record of deleted groups holds " + std::to_string(recorded) + " patterns of the " +
                          std::to_string(max) + " allowed, and would get " + std::to_string(more) + " more");
}

// How many bytes the new members make of the record, as the store's account counts them.
size_t StoreChange::CountRecordGrowth() const {
  if (_record.added.IsEmpty()) return 0;
  const auto& [name, members] = *_record.added.begin();
  const size_t bytes = StoreAccount::CountGroup(name, members);
  return _documents._user.GetGroups().HasGroup(name) ? bytes - StoreAccount::CountGroup(name, {}) : bytes;
}

// What has room anyway is not searched for.
void StoreChange::RequireRoom() const {
  const StoreAccount& account = _documents._account;
  const ChangePlans* const plans = _request.GetPlans();
  const size_t hidden = _hidden.GetBytes() + (plans ? plans->hidden.GetBytes() : 0);
  const size_t record = CountRecordGrowth();
  const size_t copies = _request.IsPersistent() ? 2 : 1;
  if (account.HasRoom(copies * _request.GetBytes() + record + hidden)) return;
  account.RequireRoom(CountGrowth() + static_cast<std::ptrdiff_t>(record), static_cast<std::ptrdiff_t>(hidden));
}

// Without what the record gets, and without the copies that shared groups take which are replaced.
std::ptrdiff_t StoreChange::CountGrowth() const {
  const IniFile& settings = _request.GetSettings();
  if (!_request.IsPersistent()) return StoreAccount::CountGrowth(_documents._all, settings);
  const std::set<std::string>& removed = _request.GetRemovedNames();
  StoreAccount::Groups groups;
  std::ptrdiff_t growth = 0;
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    const std::string& name = group->first;
    const bool isShared = _documents._user.IsShared(name);
    if (isShared && removed.count(name) == 0) {
      growth += StoreAccount::CountGrowth(_documents._all, group);
      continue;
    }
    groups.push_back(group);
    if (!isShared) continue;
    const size_t bytes = StoreAccount::CountGroup(name, _documents._user.GetSharedKeys(name));
    growth -= static_cast<std::ptrdiff_t>(bytes - StoreAccount::CountGroup(name, {}));
  }
  return growth + StoreAccount::CountGrowth(_documents._all, _documents._user.GetGroups(), removed, groups);
}

// All that the change needs memory for.
void StoreChange::Prepare() {
  const IniFile& settings = _request.GetUnplannedSettings();
  const std::set<std::string>& removed = _request.GetUnplannedNames();
  _mergeIntoAll.Prepare(_documents._all, settings, removed);
  if (!_request.IsPersistent()) return;
  _mergeIntoUser.Prepare(_documents._user, settings, removed, _persister ? &_different : nullptr);
  _mergeIntoUser.Prepare(_documents._user, _record.added, removed, nullptr);
  if (_persister) PrepareSave();
}

// What differs is of interest to the persister alone.
void StoreChange::PrepareSave() {
  const std::set<std::string>& removed = _request.GetUnplannedNames();
  const ChangePlans* plans = _request.GetPlans();
  _different.merge(FindDifference(_documents._user, removed, _request.GetUnplannedSettings()));
  const bool isUnchanged = _different.empty() && !(plans && plans->user.HasDifference()) && _record.added.IsEmpty();
  if (_request.GetMembers()) _different.insert(removed.begin(), removed.end());  // defaults go by the record alone
  if (!isUnchanged) return KeepOldSettings();
  GroupNameMatcher& held = _held.emplace();
  if (_request.GetRemovedMatcher()) held = *_request.GetRemovedMatcher();
  held.AddNamesAndPatterns(_request.GetRemovedNames());
  for (const auto& group : _request.GetSettings()) held.AddNameOrPattern(group.first);
  if (_request.GetMembers()) held.AddNameOrPattern(_documents.GetRecordGroup());
}

void StoreChange::KeepOldSettings() {
  if (!_persister->NeedsOldSettings()) return;
  _before = CopyOldSettings(_documents._user, _different, _record.added);
  ChangePlans* const plans = _request.GetPlans();
  if (plans) _before->MergeSettings(CopyGroups(_documents._user, plans->user.GetDifferent()));
}

void StoreChange::CarryOut() noexcept {
  StoreAccount& account = _documents._account;
  BeginVersion(_documents);
  if (_documents._recorders.AreActive()) NoteGroups();
  CarryOutHidden();
  _documents._user.Forget(_request.GetRemovedNames());
  if (_request.GetPlans()) CarryOutPlans(*_request.GetPlans());
  if (!_request.GetUnplannedNames().empty()) RemoveGroups();
  _mergeIntoAll.CarryOut(_documents._all, account, account.GetAllTally());
  if (_request.HasRecord()) account.RemoveGroup(_documents._all, account.GetAllTally(), _documents.GetRecordGroup());
  if (!_request.IsPersistent()) return;
  _documents._user.AddSharedKeys(_mergeIntoUser.CountSharedKeys());
  _mergeIntoUser.CarryOut(_documents._user.GetMutableGroups(), account, account.GetUserTally());
  _documents._record.CarryOut(_record);
}

void StoreChange::CarryOutHidden() noexcept {
  HiddenLayers& hidden = _documents._hidden;
  StoreAccount& account = _documents._account;
  if (_request.IsPersistent())
    HiddenChange::ForgetUnsaved(hidden, account, _request.GetSettings(), _request.GetRemovedNames());
  if (_request.GetPlans()) _request.GetPlans()->hidden.CarryOut(hidden, account);
  _hidden.CarryOut(hidden, account);
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
  plans.user.CarryOut(_documents._user.GetMutableGroups(), account.GetUserTally(), changedGroups);
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
  MoveGroups(_documents._user.GetMutableGroups(), _documents._account.GetUserTally(), names, _removed.user);
}

void StoreChange::Save() {
  static const std::set<std::string> none;
  const std::set<std::string>& changed = _held ? none : _different;
  _ticket = _persister->SaveChange(
      {_documents._user, changed, _record.added, _request.GetOrigin(), _before ? &*_before : nullptr});
}

// A power cut may still take back what the request finds done already.
void StoreChange::FindTicketOfOthers() {
  if (_held) _ticket = std::max(_ticket, _persister->FindLastTicket(*_held));
}

}  // namespace tavix::settings::server
