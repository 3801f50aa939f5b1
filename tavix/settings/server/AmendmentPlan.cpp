#include "tavix/settings/server/AmendmentPlan.h"

#include <algorithm>
#include <iterator>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/AmendedGroup.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;
using Keys = IniFile::KeyMap;
using Names = std::set<std::string>;

namespace {

bool ShareGroup(const IniFile& one, const IniFile& other) {
  return std::any_of(one.begin(), one.end(), [&](const auto& group) { return other.HasGroup(group.first); });
}

// Whether a key is in both, or a group of "unset" that stands for all its keys is in "set".
bool SetsWhatItUnsets(const IniFile& set, const IniFile& unset) {
  return std::any_of(unset.begin(), unset.end(), [&](const auto& group) {
    const Keys* const keys = FindKeys(set, group.first);
    if (!keys || group.second.empty()) return keys != nullptr;
    return std::any_of(keys->begin(), keys->end(),
                       [&](const auto& setting) { return group.second.count(setting.first) != 0; });
  });
}

// Whether no key of the group is set; without keys: there is no such group.
bool LacksKeys(const IniFile& all, IniFile::const_iterator group) {
  const Keys* const keys = FindKeys(all, group->first);
  if (!keys || group->second.empty()) return !keys;
  return std::none_of(group->second.begin(), group->second.end(),
                      [&](const auto& setting) { return keys->count(setting.first) != 0; });
}

const IniFile& Nothing() {
  static const IniFile nothing;
  return nothing;
}

}  // namespace

AmendmentPlan::AmendmentPlan(const Amendment& amendment) : AmendmentPlan(amendment, Nothing()) {}

AmendmentPlan::AmendmentPlan(const Amendment& amendment, const IniFile& drop)
    : _present(amendment.present),
      _absent(amendment.absent, LacksKeys),
      _set(amendment.set),
      _unset(amendment.unset),
      _replace(amendment.replace),
      _drop(drop) {}

bool AmendmentPlan::IsSound() const {
  const IniFile& replace = _replace.Get();
  const bool hasPattern = std::any_of(replace.begin(), replace.end(),
                                      [](const auto& group) { return DeletedGroupsRecord::IsPattern(group.first); });
  return !hasPattern && !ShareGroup(replace, _set.Get()) && !ShareGroup(replace, _unset.Get()) &&
         !SetsWhatItUnsets(_set.Get(), _unset.Get());
}

bool AmendmentPlan::MakeEarly(const StoreDocuments& documents) {
  if (_present.IsLong() || _absent.IsLong()) _recorder.emplace(documents.GetRecorders());
  for (const EarlyTest* test : {&_present, &_absent}) {
    if (test->IsLong() && !test->HoldsInParts(documents)) return false;
  }
  if (!IsLong(documents.GetRecordGroup())) return true;
  const osa::ReadAutoLock lock(documents.GetLock());
  return MakeAnew(documents);
}

bool AmendmentPlan::Make(const StoreDocuments& documents) {
  const bool isUpToDate = _version == documents.GetVersion() && _sharedBefore == documents.GetUser().CountShared();
  const bool isMade = isUpToDate || MakeAnew(documents);
  _recorder.reset();  // what changes from here on is the amendment's own
  return isMade;
}

bool AmendmentPlan::MakeAnew(const StoreDocuments& documents) {
  Clear();
  if (!Holds(documents.GetAll())) return false;
  EditRecord(documents);
  if (!IsSeenAgain(documents)) return false;
  FindTouched(documents);
  for (const Names* names : {&_whole, &_keyed}) {
    for (const std::string& name : *names) {
      AmendedGroup group = MakeGroup(documents, name);
      EditGroup(group);
    }
  }
  SaveRecord(documents.GetRecordGroup());
  FindSaved(documents.GetRecordGroup());
  _version = documents.GetVersion();
  _sharedBefore = documents.GetUser().CountShared();
  return true;
}

// A pattern that joins or leaves the record is tried on all groups.
bool AmendmentPlan::IsLong(const std::string& recordGroup) const {
  const IniFile& unset = _unset.Get();
  return IsLarge(_set.Get()) || IsLarge(unset) || IsLarge(_replace.Get()) || IsLarge(_drop.Get()) ||
         _set.Get().HasGroup(recordGroup) || _replace.Get().HasGroup(recordGroup) ||
         std::any_of(unset.begin(), unset.end(), [&](const auto& group) {
           return group.first == recordGroup || DeletedGroupsRecord::IsPattern(group.first);
         });
}

void AmendmentPlan::Clear() {
  _version.reset();
  _record.reset();
  for (Names* names : {&_whole, &_keyed, &_deleted, &_unshared, &_gone, &_different}) names->clear();
  _edits.emplace();
  _sharedKeys = 0;
  _copiedBytes = 0;
  _changed.Clear();
  _addedMembers.Clear();
  _held.reset();
}

bool AmendmentPlan::Holds(const IniFile& all) {
  if (_recorder) _changedByOthers.merge(_recorder->Take());
  return _present.Holds(all, _changedByOthers) && _absent.Holds(all, _changedByOthers);
}

// In the order of the changes: replace, set, unset.
void AmendmentPlan::EditRecord(const StoreDocuments& documents) {
  const std::string& own = documents.GetRecordGroup();
  RecordEdit& record =
      _record.emplace(documents.GetRecord(), documents.GetRecord().MembersOf(documents.GetUser().GetGroups()));
  if (const Keys* members = FindKeys(_replace.Get(), own)) record.Replace(*members);
  for (const auto& group : _replace.Get()) {
    if (group.first != own) record.Add(group.first);
  }
  if (const Keys* members = FindKeys(_set.Get(), own)) {
    for (const auto& [key, member] : *members) record.Set(key, member);
  }
  for (const auto& [name, keys] : _unset.Get()) {
    if (name == own && keys.empty()) {
      record.Replace({});
    } else if (name == own) {
      for (const auto& setting : keys) record.Erase(setting.first);
    } else if (keys.empty()) {
      record.EraseMember(name);
    }
  }
}

// Whether no recorded pattern hides a group of which all user values leave. A pattern that leaves is no group.
bool AmendmentPlan::IsSeenAgain(const StoreDocuments& documents) const {
  Names names;
  for (const auto& [name, keys] : _unset.Get()) {
    const bool isPattern = DeletedGroupsRecord::IsPattern(name) && _record->HeldBefore(name);
    if (keys.empty() && !isPattern && name != documents.GetRecordGroup()) names.insert(name);
  }
  Names hidden;
  if (!names.empty()) _record->FindPatterns().GetMatchingGroups(names, hidden);
  return hidden.empty();
}

void AmendmentPlan::FindTouched(const StoreDocuments& documents) {
  for (const IniFile* groups : {&_replace.Get(), &_drop.Get()}) {
    for (const auto& group : *groups) _whole.insert(group.first);
  }
  for (const auto& group : _set.Get()) _keyed.insert(group.first);
  for (const auto& [name, keys] : _unset.Get()) (keys.empty() ? _whole : _keyed).insert(name);
  if (!_record->GetTouched().empty()) AddDeletedOrBack(documents);
  _whole.erase(documents.GetRecordGroup());
  for (const std::string& name : _whole) _keyed.erase(name);
  _keyed.erase(documents.GetRecordGroup());
  const GroupNameMatcher patterns = _record->FindPatterns();
  for (const Names* names : {&_whole, &_keyed}) {
    patterns.GetMatchingGroups(*names, _deleted);
    std::copy_if(names->begin(), names->end(), std::inserter(_deleted, _deleted.end()),
                 [&](const std::string& name) { return _record->Holds(name); });
  }
}

// Groups whose defaults come or go by what joins or leaves the record.
void AmendmentPlan::AddDeletedOrBack(const StoreDocuments& documents) {
  GroupNameMatcher touched;
  touched.AddNamesAndPatterns(_record->GetTouched());
  Names names;
  touched.GetMatchingGroups(documents.GetAll(), names);
  touched.GetMatchingGroups(documents.GetHidden().defaults, names);
  Names before;
  Names after;
  _record->FindPatternsBefore().GetMatchingGroups(names, before);
  _record->FindPatterns().GetMatchingGroups(names, after);
  for (const std::string& name : names) {
    const bool wasDeleted = before.count(name) != 0 || _record->HeldBefore(name);
    const bool isDeleted = after.count(name) != 0 || _record->Holds(name);
    if (wasDeleted != isDeleted && documents.IsLayered(name) && documents.FindLayers(name).HasDefaults())
      _whole.insert(name);
  }
}

AmendedGroup AmendmentPlan::MakeGroup(const StoreDocuments& documents, const std::string& name) const {
  const GroupLayers layers = documents.FindLayers(name);
  AmendedGroup group{name,
                     layers,
                     _whole.count(name) != 0,
                     _deleted.count(name) != 0,
                     _drop.Get().HasGroup(name),
                     FindKeys(_replace.Get(), name),
                     FindKeys(_set.Get(), name),
                     FindKeys(_unset.Get(), name)};
  group.isWhole |= group.AppearsByDefaults();
  group.seen = layers.all ? static_cast<std::ptrdiff_t>(layers.all->size()) : 0;
  return group;
}

void AmendmentPlan::EditGroup(AmendedGroup& group) {
  const Names keys = group.FindTouchedKeys();
  for (const std::string& key : keys) EditKey(group, key);
  EditUser(group, keys);
  EndGroup(group);
  EndHidden(group);
}

void AmendmentPlan::EditKey(AmendedGroup& group, const std::string& key) {
  const std::string* const before = FindValue(group.layers.all, key);
  const std::string* const after = group.FindSeen(key);
  if (after && !(before && *before == *after)) {
    _edits->all.Set(group.name, key, *after);
    _changed[group.name][key] = *after;
  } else if (before && !after) {
    _edits->all.Erase(group.name, key);
    _changed[group.name];
  }
  group.seen += (after ? 1 : 0) - (before ? 1 : 0);
  const std::string* const standard = group.layers.FindDefault(key);
  const bool isHidden = FindValue(group.layers.hiddenDefaults, key) != nullptr;
  if (standard && standard == after && isHidden) {
    _edits->hiddenDefaults.Erase(group.name, key);
    ++group.unhidden;
  } else if (standard && standard != after && !isHidden) {
    _edits->hiddenDefaults.Set(group.name, key, *standard);
    group.hidesDefaults = true;
  }
  if (!FindValue(group.layers.unsaved, key)) return;
  _edits->unsaved.Erase(group.name, key);
  ++group.saved;
}

void AmendmentPlan::EditUser(const AmendedGroup& group, const Names& keys) {
  if (!group.layers.IsShared()) {
    for (const std::string& key : keys) EditUserKey(group, key);
  } else if (group.StaysShared(keys)) {
    _sharedKeys += group.seen - static_cast<std::ptrdiff_t>(group.layers.user->size());
  } else {
    Unshare(group);
  }
}

// What was shared has no keys in the document of the user settings.
void AmendmentPlan::Unshare(const AmendedGroup& group) {
  _unshared.insert(group.name);
  _different.insert(group.name);
  if (!group.HasUser()) return;
  for (const std::string& key : group.FindPossibleUserKeys()) {
    if (const std::string* const value = group.FindUser(key)) _edits->user.Set(group.name, key, *value);
  }
  _copiedBytes += StoreAccount::CountGroup({}, *group.layers.user) - StoreAccount::CountGroup({}, {});
}

void AmendmentPlan::EditUserKey(const AmendedGroup& group, const std::string& key) {
  const std::string* const before = FindValue(group.layers.user, key);
  const std::string* const after = group.FindUser(key);
  if (after && !(before && *before == *after)) {
    _edits->user.Set(group.name, key, *after);
  } else if (before && !after) {
    _edits->user.Erase(group.name, key);
  }
}

// Whether the group is there, for readers and in the user settings.
void AmendmentPlan::EndGroup(const AmendedGroup& group) {
  const GroupLayers& layers = group.layers;
  const bool hasUser = group.HasUser();
  if (layers.user && !hasUser) _edits->user.RemoveGroup(group.name);
  if (!layers.user && hasUser) _edits->user.Create(group.name);
  if (_edits->user.Touches(group.name)) _different.insert(group.name);
  const bool isSeen = group.seen > 0 || hasUser || layers.restricted || (!group.isDeleted && layers.HasDefaults());
  if (layers.all && !isSeen) {
    _edits->all.RemoveGroup(group.name);
    _changed.RemoveGroup(group.name);
    _gone.insert(group.name);
  } else if (!layers.all && isSeen) {
    _edits->all.Create(group.name);
    _changed[group.name];
  }
}

// Without a mark, a group of the defaults that has no keys can't be told from one of another layer.
void AmendmentPlan::EndHidden(const AmendedGroup& group) {
  const GroupLayers& layers = group.layers;
  const bool isGone = _gone.count(group.name) != 0;
  const bool isSaved =
      layers.unsaved && (group.isWhole || isGone || (group.saved > 0 && group.saved == layers.unsaved->size()));
  if (isSaved) _edits->unsaved.RemoveGroup(group.name);
  const bool isOthers = group.isDeleted || group.HasUser() || layers.restricted || (layers.unsaved && !isSaved);
  if (layers.IsUnmarkedEmptyDefault() && isOthers) _edits->hiddenDefaults.Create(group.name);
  if (!layers.hiddenDefaults || group.hidesDefaults || group.unhidden != layers.hiddenDefaults->size()) return;
  if (group.unhidden > 0 || !isOthers) _edits->hiddenDefaults.RemoveGroup(group.name);
}

void AmendmentPlan::SaveRecord(const std::string& group) {
  for (const auto& [key, member] : _record->GetSet()) _edits->user.Set(group, key, member);
  for (const std::string& key : _record->GetErased()) _edits->user.Erase(group, key);
  if (_record->IsEmptied()) _edits->user.RemoveGroup(group);
  if (!_record->OnlyAdds()) {
    _different.insert(group);
  } else if (!_record->GetSet().empty()) {
    _addedMembers[group] = _record->GetSet();
  }
}

std::ptrdiff_t AmendmentPlan::CountGrowth(const StoreDocuments& documents) const {
  return _edits->all.CountGrowth(documents.GetAll()) + _edits->user.CountGrowth(documents.GetUser().GetGroups()) -
         static_cast<std::ptrdiff_t>(_copiedBytes);
}

std::ptrdiff_t AmendmentPlan::CountHiddenGrowth(const StoreDocuments& documents) const {
  const HiddenLayers& hidden = documents.GetHidden();
  return _edits->hiddenDefaults.CountGrowth(hidden.defaults) + _edits->unsaved.CountGrowth(hidden.unsaved) +
         static_cast<std::ptrdiff_t>(_copiedBytes);
}

void AmendmentPlan::FindSaved(const std::string& recordGroup) {
  for (const auto& group : _changed) _different.insert(group.first);
  _different.insert(_gone.begin(), _gone.end());
  if (!_different.empty() || !_addedMembers.IsEmpty()) return;
  _held.emplace();
  for (const IniFile* document : {&_set.Get(), &_unset.Get(), &_replace.Get(), &_drop.Get()}) {
    for (const auto& group : *document) _held->AddNameOrPattern(group.first);
  }
  _held->AddNameOrPattern(recordGroup);
}

}  // namespace tavix::settings::server
