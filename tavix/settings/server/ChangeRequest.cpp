#include "tavix/settings/server/ChangeRequest.h"

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;

namespace {

bool HasShared(const StoreDocuments& documents) {
  const osa::ReadAutoLock lock(documents.GetLock());
  return documents.GetUser().HasShared();
}

}  // namespace

void ChangeRequest::RemoveVisible(const GroupNameMatcher& matcher, const std::set<std::string>& members) {
  _removedMatcher = &matcher;
  _members = &members;
  _matches.emplace(matcher, StoreDocuments::Which::kAll);
}

void ChangeRequest::RemoveUser(const GroupNameMatcher& matcher) {
  _removedMatcher = &matcher;
  _matches.emplace(matcher, StoreDocuments::Which::kUser);
}

bool ChangeRequest::Prepare(StoreDocuments& documents) {
  const bool isTestLong = _test && _test->IsLong();
  const bool isLong = IsLarge(*_settings) || (_matches && _matches->AreMany());
  _changedGroups.clear();
  if (isTestLong || isLong) _recorder.emplace(documents.GetRecorders());
  if (isTestLong && !_test->HoldsInParts(documents)) return false;
  PrepareLocked(documents);
  if (!isLong) return true;
  if (!_test) RequireRoom(documents);
  documents.OwnGroups(*_settings);  // what is loaded anew since the recorder began is not planned
  Plan(documents);
  return true;
}

void ChangeRequest::PrepareLocked(const StoreDocuments& documents) {
  _hasRecord = !_settings->IsEmpty() && _settings->HasGroup(documents.GetRecordGroup());
  _bytes = StoreAccount::Count(*_settings);
}

// Both documents will hold all settings: what they don't leave room for by themselves is refused before it is copied.
// The copies that shared groups take are no growth: they count as if they were there.
void ChangeRequest::RequireRoom(const StoreDocuments& documents) const {
  if (_hasRecord) return;  // readers don't see it
  const StoreAccount& account = documents.GetAccount();
  const size_t bytes = _isPersistent ? 2 * _bytes : _bytes;
  const size_t before = _isPersistent && HasShared(documents) ? 2 * account.GetBytes() : account.GetBytes();
  account.RequireRoom(static_cast<std::ptrdiff_t>(bytes) - static_cast<std::ptrdiff_t>(before));
}

void ChangeRequest::Plan(const StoreDocuments& documents) {
  static const std::set<std::string> none;
  if (_matches) _matches->FindInParts(documents);
  const std::set<std::string>& removed = _matches ? _matches->GetFound() : none;
  ChangePlans& plans = _plans.emplace();
  plans.all.Make(documents, *_settings, removed);
  plans.hidden.Make(documents, *_settings, removed, _isPersistent);
  if (!_isPersistent) return;
  plans.user.Make(documents, *_settings, removed);
  if (_members) plans.user.AddAllRemoved(removed);
}

bool ChangeRequest::IsOutdated() {
  constexpr size_t kFewGroups = 64;
  if (_recorder) TakeChangedGroups();
  return _changedGroups.size() > kFewGroups;
}

// What changes from here on is our own, or looked at again.
void ChangeRequest::TakeChangedGroups() {
  _changedGroups = _recorder->Take();
  _recorder.reset();
}

bool ChangeRequest::BringUpToDate(const StoreDocuments& documents) {
  if (_recorder) TakeChangedGroups();
  if (_test && !_test->Holds(documents.GetAll(), _changedGroups)) return false;
  if (_matches) _removedNames = _matches->Take(documents.GetGroups(_matches->GetWhich()), _changedGroups);
  if (!_plans) return true;
  _plans->all.Withdraw(_changedGroups);
  _plans->user.Withdraw(_changedGroups);
  _plans->hidden.Withdraw(_changedGroups);
  for (const std::string& name : _changedGroups) {
    _plans->lateSettings.MergeSettings(*_settings, name);
    if (_removedNames.count(name) != 0) _plans->lateNames.insert(name);
  }
  return true;
}

}  // namespace tavix::settings::server
