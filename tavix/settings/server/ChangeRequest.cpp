#include "tavix/settings/server/ChangeRequest.h"

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;

void ChangeRequest::RemoveVisible(const GroupNameMatcher& matcher, const std::set<std::string>& members) {
  _removedMatcher = &matcher;
  _members = &members;
  _matches.emplace(matcher, StoreDocuments::Which::kAll);
}

void ChangeRequest::RemoveUser(const GroupNameMatcher& matcher) {
  _removedMatcher = &matcher;
  _matches.emplace(matcher, StoreDocuments::Which::kUser);
}

bool ChangeRequest::Prepare(const StoreDocuments& documents) {
  const bool isTestLong = _test && _test->IsLong();
  const bool areMatchesMany = _matches && _matches->AreMany();
  if (isTestLong || areMatchesMany) _recorder.emplace(documents.GetRecorders());
  if (isTestLong && !_test->HoldsInParts(documents)) return false;
  PrepareLocked(documents);
  if (areMatchesMany) _matches->FindInParts(documents);
  return true;
}

void ChangeRequest::PrepareLocked(const StoreDocuments& documents) {
  _hasRecord = !_settings->IsEmpty() && _settings->HasGroup(documents.GetRecordGroup());
  _copies.emplace(*_settings, _isPersistent);
}

bool ChangeRequest::BringUpToDate(const StoreDocuments& documents) {
  if (!_test && !_matches) return true;
  std::set<std::string> changedGroups;
  if (_recorder) changedGroups = _recorder->Take();
  _recorder.reset();  // the change that follows is our own
  if (_test && !_test->Holds(documents.GetAll(), changedGroups)) return false;
  if (_matches) _removedNames = _matches->Take(documents.Get(_matches->GetWhich()), changedGroups);
  if (_members) GroupDiscriminator::FilterOutRestrictedGroups(_removedNames);
  return true;
}

}  // namespace tavix::settings::server
