#include "tavix/settings/server/DocumentPlan.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/server/DocumentChange.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

constexpr size_t kGroupsOfAPart = 200;  // each is looked for in a large document, and some keys are copied

}  // namespace

void DocumentPlan::Make(const StoreDocuments& documents, const IniFile& settings,
                        const std::set<std::string>& removed) {
  IniFile copy;
  copy.MergeSettings(settings);
  _values = std::move(copy);
  _settings.clear();
  _removals.clear();
  _different.clear();
  _addedCount = 0;
  _survivors.clear();
  _removedCount = 0;
  for (auto group = _values.begin(); group != _values.end();) {
    const osa::ReadAutoLock lock(documents.GetLock());
    for (size_t left = kGroupsOfAPart; left > 0 && group != _values.end(); --left, ++group)
      PlanSetting(documents.GetGroups(_which), group, removed.count(group->first) != 0);
  }
  for (auto name = removed.begin(); name != removed.end();) {
    const osa::ReadAutoLock lock(documents.GetLock());
    for (size_t left = kGroupsOfAPart; left > 0 && name != removed.end(); --left, ++name)
      PlanRemoval(documents.GetGroups(_which), *name);
  }
  FindSurvivors(documents, removed);
  _bytes = StoreAccount::Count(_values);
  _tally.Set(0, 0);
  for (const auto& [name, keys] : _values) _tally.OnGroupAdded(name, keys.size());
}

void DocumentPlan::PlanSetting(const IniFile& document, IniFile::iterator values, bool isRemoved) {
  constexpr size_t kMoreKeys = 4;
  const IniFile::GroupMap& groups = document.GetGroups();
  const auto place = groups.lower_bound(values->first);
  IniFile::KeyMap& keys = values->second;
  Setting setting{&values->first, values, Step::kNothing, place, {}};
  if (place == groups.end() || place->first != values->first) {
    setting.step = Step::kInsert;
    if (place != groups.end()) setting.next = place->first;
  } else if (isRemoved) {
    ++_removedCount;
    if (place->second != keys) setting.step = Step::kExchange;
  } else if (!HoldsKeys(place->second, keys)) {
    const bool hasManyKeys = place->second.size() > kMoreKeys * (1 + keys.size());
    setting.step = hasManyKeys ? Step::kMergeKeys : Step::kExchange;
    if (!hasManyKeys) keys.insert(place->second.begin(), place->second.end());
  }
  if (setting.step != Step::kNothing) _different.insert(_different.end(), values->first);
  _settings.push_back(std::move(setting));
}

void DocumentPlan::PlanRemoval(const IniFile& document, const std::string& name) {
  const auto place = document.GetGroups().find(name);
  if (place == document.GetGroups().end() || _values.HasGroup(name)) return;
  ++_removedCount;
  _removals.push_back({&name, place, false});
  _different.insert(name);
}

void DocumentPlan::AddAllRemoved(const std::set<std::string>& removed) {
  const size_t before = _different.size();
  _different.insert(removed.begin(), removed.end());
  _addedCount = _different.size() - before;
}

// Where one group in eight or fewer stays, bringing these back takes less than removing all others.
void DocumentPlan::FindSurvivors(const StoreDocuments& documents, const std::set<std::string>& removed) {
  constexpr size_t kFewOf = 8;
  std::string next;
  for (bool isFirst = true, isDone = false; !isDone; isFirst = false) {
    const osa::ReadAutoLock lock(documents.GetLock());
    const IniFile::GroupMap& groups = documents.GetGroups(_which).GetGroups();
    if (isFirst) _leavesFew = groups.size() < _removedCount + _removedCount / kFewOf;
    if (!_leavesFew) return;
    auto group = groups.lower_bound(next);
    for (size_t left = kGroupsOfAPart; left > 0 && group != groups.end(); --left, ++group) {
      if (removed.count(group->first) == 0) _survivors.insert(_survivors.end(), group->first);
    }
    isDone = group == groups.end();
    if (!isDone) next = group->first;
  }
}

// Groups that others changed stay as they are, so that they survive, too.
void DocumentPlan::Withdraw(const std::set<std::string>& changedGroups) {
  for (const std::string& name : changedGroups) Withdraw(name);
  if (_leavesFew) _survivors.insert(changedGroups.begin(), changedGroups.end());
}

void DocumentPlan::CarryOut(IniFile& document, DocumentTally& tally,
                            const std::set<std::string>& changedGroups) noexcept {
  if (_leavesFew) return ExchangeAll(document, tally, changedGroups);
  Set(document.GetMutableGroups(), tally, changedGroups);
  Remove(document.GetMutableGroups(), tally);
}

DocumentPlan::Setting* DocumentPlan::FindSetting(const std::string& name) {
  const auto isBefore = [](const Setting& setting, const std::string& text) { return *setting.name < text; };
  const auto setting = std::lower_bound(_settings.begin(), _settings.end(), name, isBefore);
  return setting != _settings.end() && *setting->name == name ? &*setting : nullptr;
}

DocumentPlan::Removal* DocumentPlan::FindRemoval(const std::string& name) {
  const auto isBefore = [](const Removal& removal, const std::string& text) { return *removal.name < text; };
  const auto removal = std::lower_bound(_removals.begin(), _removals.end(), name, isBefore);
  return removal != _removals.end() && *removal->name == name ? &*removal : nullptr;
}

void DocumentPlan::Withdraw(const std::string& name) {
  Setting* setting = FindSetting(name);
  Removal* removal = FindRemoval(name);
  const bool isDifferent = removal || (setting && setting->step != Step::kNothing);
  if (_different.erase(name) != 0 && !isDifferent) --_addedCount;
  if (setting) setting->step = Step::kNothing;
  if (removal) removal->isWithdrawn = true;
}

// The place that was found is valid unless its group has changed: it may be gone.
IniFile::const_iterator DocumentPlan::FindPlace(const IniFile::GroupMap& groups, const Setting& setting,
                                                const std::set<std::string>& changedGroups) {
  if (setting.next.empty()) return groups.end();
  return changedGroups.count(setting.next) == 0 ? setting.place : groups.lower_bound(*setting.name);
}

void DocumentPlan::Set(IniFile::GroupMap& groups, DocumentTally& tally, const std::set<std::string>& changedGroups) {
  IniFile::GroupMap& source = _values.GetMutableGroups();
  for (const Setting& setting : _settings) {
    if (setting.step == Step::kNothing) continue;
    if (setting.step == Step::kInsert) {
      tally.OnGroupAdded(setting.values->first, setting.values->second.size());
      groups.insert(FindPlace(groups, setting, changedGroups), source.extract(setting.values));
      continue;
    }
    const auto group = groups.erase(setting.place, setting.place);  // the same place, to change it
    const size_t keysBefore = group->second.size();
    if (setting.step == Step::kExchange) {
      group->second.swap(setting.values->second);
    } else {
      MoveKeys(group->second, setting.values->second);
    }
    tally.OnKeysAdded(group->second.size() - keysBefore);
  }
}

void DocumentPlan::Remove(IniFile::GroupMap& groups, DocumentTally& tally) {
  IniFile::GroupMap& target = _removed.GetMutableGroups();
  for (const Removal& removal : _removals) {
    if (removal.isWithdrawn) continue;
    tally.OnGroupRemoved(removal.place->first, removal.place->second.size());
    target.insert(target.end(), groups.extract(removal.place));
  }
}

// Of the values, those of groups that others changed are left out.
void DocumentPlan::ExchangeAll(IniFile& document, DocumentTally& tally, const std::set<std::string>& changedGroups) {
  IniFile::GroupMap unused;
  for (const std::string& name : changedGroups) {
    auto values = _values.GetMutableGroups().extract(name);
    if (!values) continue;
    _tally.OnGroupRemoved(name, values.mapped().size());
    unused.insert(std::move(values));
  }
  IniFile::GroupMap& groups = document.GetMutableGroups();
  KeepSurvivors(groups);
  _removed.GetMutableGroups().swap(groups);
  groups.swap(_values.GetMutableGroups());
  _values.GetMutableGroups().swap(unused);
  tally.Set(_tally.CountKeys(), _tally.CountNameBytes());
}

// Among the values, as these become the document.
void DocumentPlan::KeepSurvivors(IniFile::GroupMap& before) {
  for (const std::string& name : _survivors) {
    const auto group = before.find(name);
    if (group == before.end()) continue;
    const auto values = _values.GetMutableGroups().find(name);
    if (values == _values.end()) {
      _tally.OnGroupAdded(name, group->second.size());
      _values.GetMutableGroups().insert(before.extract(group));
      continue;
    }
    const size_t keysBefore = values->second.size();
    const Step step = FindSetting(name)->step;
    if (step == Step::kMergeKeys) MoveKeys(group->second, values->second);
    if (step != Step::kExchange) values->second.swap(group->second);
    _tally.OnKeysAdded(values->second.size() - keysBefore);
  }
}

}  // namespace tavix::settings::server
