#include "tests/support/StoreModel.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using Names = StoreModel::Names;
using Groups = StoreModel::Groups;

bool IsRestricted(const std::string& group) {
  return group.find("Secure") != std::string::npos || group.find("Trusted") != std::string::npos;
}

bool IsPattern(const std::string& text) {
  return text.find('*') != std::string::npos;
}

bool Matches(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') return Matches(pattern.substr(1), text) || (!text.empty() && Matches(pattern, text.substr(1)));
  return !text.empty() && pattern[0] == text[0] && Matches(pattern.substr(1), text.substr(1));
}

void MergeInto(Groups& target, const Groups& source) {
  for (const auto& [group, keys] : source) {
    target[group];
    for (const auto& [key, value] : keys) target[group][key] = value;
  }
}

Change ChangeOf(Names groups, const Groups& settings) {
  for (const auto& group : settings) groups.insert(group.first);
  return Change{groups, StoreModel::TextOf(settings)};
}

void Record(Groups& user, const std::string& group) {
  auto& record = user[StoreModel::kRecord];
  for (const auto& entry : record) {
    if (entry.second == group) return;
  }
  std::string key = group;
  while (record.count(key)) key += '~';
  record[key] = group;
}

void Unrecord(Groups& user, const std::string& group) {
  auto& record = user[StoreModel::kRecord];
  for (auto next = record.begin(); next != record.end();) {
    const auto entry = next++;
    if (entry->second == group) record.erase(entry);
  }
}

Names RecordedOf(const Groups& user) {
  Names recorded;
  const auto record = user.find(StoreModel::kRecord);
  if (record == user.end()) return recorded;
  for (const auto& entry : record->second) recorded.insert(entry.second);
  return recorded;
}

bool IsDeleted(const Groups& user, const std::string& group) {
  return !StoreModel::MatchingOf(RecordedOf(user), {{group, {}}}).empty();
}

bool Has(const Groups& groups, const std::string& group, const std::string& key) {
  const auto found = groups.find(group);
  return found != groups.end() && found->second.count(key) != 0;
}

void Unset(Groups& user, const std::string& group, const std::map<std::string, std::string>& keys, bool isSet) {
  const auto found = user.find(group);
  if (found == user.end() || found->second.empty()) return;
  for (const auto& setting : keys) found->second.erase(setting.first);
  if (found->second.empty() && !isSet) user.erase(found);
}

}  // namespace

StoreModel::StoreModel(Groups ofDefaults, Groups ofLoader)
    : defaults(std::move(ofDefaults)), restricted(std::move(ofLoader)) {
  Load();
}

std::string StoreModel::TextOf(const Groups& groups) {
  return test::TextOf(core::IniFile(groups));
}

Names StoreModel::MatchingOf(const Names& wanted, const Groups& groups) {
  Names matching;
  for (const auto& group : groups) {
    for (const std::string& one : wanted) {
      if (Matches(one, group.first)) matching.insert(group.first);
    }
  }
  return matching;
}

Groups StoreModel::UnrestrictedOf(const Groups& groups) {
  Groups unrestricted;
  for (const auto& [group, keys] : groups) {
    if (!IsRestricted(group)) unrestricted[group] = keys;
  }
  return unrestricted;
}

void StoreModel::Load() {
  _loadedDefaults = defaults;
  _unsaved.clear();
  user = UnrestrictedOf(user);
  all = FindNextStart(user);
}

Groups StoreModel::FindNextStart(const Groups& userSettings) const {
  Groups next = _loadedDefaults;
  for (const std::string& group : MatchingOf(RecordedOf(userSettings), next)) next.erase(group);
  MergeInto(next, userSettings);
  next = UnrestrictedOf(next);
  MergeInto(next, restricted);
  next.erase(kRecord);
  return next;
}

Change StoreModel::Merge(const Groups& settings, bool isPersistent) {
  const Groups filtered = UnrestrictedOf(settings);
  MergeInto(all, filtered);
  all.erase(kRecord);
  if (isPersistent) {
    MergeInto(user, filtered);
    ForgetUnsaved(filtered);
  } else {
    MergeInto(_unsaved, filtered);
    _unsaved.erase(kRecord);
  }
  return ChangeOf({}, filtered);
}

void StoreModel::ForgetUnsaved(const Groups& settings) {
  for (const auto& [group, keys] : settings) {
    if (_unsaved.count(group) == 0) continue;
    for (const auto& setting : keys) _unsaved[group].erase(setting.first);
    if (_unsaved[group].empty()) _unsaved.erase(group);
  }
}

bool StoreModel::Holds(const Groups& test) const {
  Groups merged = all;
  for (const auto& [group, keys] : test) {
    for (const auto& [key, value] : keys) merged[group][key] = value;
  }
  return merged == all;
}

Change StoreModel::Overwrite(const Names& groups, const Groups& settings) {
  Names removed;
  for (const std::string& group : MatchingOf(groups, all)) {
    if (IsRestricted(group)) continue;
    all.erase(group);
    user.erase(group);
    _unsaved.erase(group);
    removed.insert(group);
  }
  Merge(settings, true);
  for (const std::string& group : groups) Record(user, group);
  return ChangeOf(removed, UnrestrictedOf(settings));
}

Change StoreModel::Restore(const Names& groups) {
  const Names removed = MatchingOf(groups, user);
  for (const std::string& group : removed) {
    all.erase(group);
    user.erase(group);
    _unsaved.erase(group);
  }
  Groups restored;
  for (const std::string& group : MatchingOf(groups, defaults)) restored[group] = defaults[group];
  MergeInto(all, restored);
  all.erase(kRecord);
  MergeInto(user, restored);
  ForgetUnsaved(restored);
  return ChangeOf(removed, restored);
}

bool StoreModel::Amend(const Amendment& amendment, Change& change) {
  const Amendment unrestricted{amendment.present,
                               amendment.absent,
                               UnrestrictedOf(amendment.set),
                               UnrestrictedOf(amendment.unset),
                               UnrestrictedOf(amendment.replace),
                               UnrestrictedOf(amendment.drop)};
  if (!IsPossible(unrestricted)) return false;
  const Groups amended = AmendUser(unrestricted);
  if (IsHiddenByPattern(unrestricted, amended)) return false;
  const Groups before = all;
  Compute(FindTouched(unrestricted, amended), FindNextStart(amended));
  user = amended;
  Names gone;
  Groups changed;
  for (const auto& [group, keys] : before) {
    if (all.count(group) == 0) gone.insert(group);
    if (all.count(group) != 0 && all[group] != keys) changed[group];
  }
  for (const auto& [group, keys] : all) {
    if (before.count(group) == 0) changed[group];
    for (const auto& [key, value] : keys) {
      if (!Has(before, group, key) || before.at(group).at(key) != value) changed[group][key] = value;
    }
  }
  change = ChangeOf(gone, changed);
  return true;
}

bool StoreModel::IsPossible(const Amendment& amendment) const {
  for (const auto& [group, keys] : amendment.replace) {
    if (IsPattern(group) || amendment.set.count(group) || amendment.unset.count(group)) return false;
  }
  for (const auto& [group, keys] : amendment.unset) {
    if (keys.empty() && amendment.set.count(group)) return false;
    for (const auto& setting : keys) {
      if (Has(amendment.set, group, setting.first)) return false;
    }
  }
  for (const auto& [group, keys] : amendment.absent) {
    if (keys.empty() && all.count(group)) return false;
    for (const auto& setting : keys) {
      if (Has(all, group, setting.first)) return false;
    }
  }
  return Holds(amendment.present);
}

Groups StoreModel::AmendUser(const Amendment& amendment) const {
  Groups amended = user;
  for (const auto& group : amendment.drop) {
    if (group.first != kRecord) amended.erase(group.first);
  }
  for (const auto& [group, keys] : amendment.replace) {
    amended.erase(group);
    if (!keys.empty()) amended[group] = keys;
  }
  for (const auto& [group, keys] : amendment.replace) {
    if (group != kRecord) Record(amended, group);
  }
  MergeInto(amended, amendment.set);
  for (const auto& [group, keys] : amendment.unset) {
    if (!keys.empty()) Unset(amended, group, keys, amendment.set.count(group) != 0);
    if (keys.empty()) amended.erase(group);
    if (keys.empty()) Unrecord(amended, group);
  }
  if (amended[kRecord].empty()) amended.erase(kRecord);
  if (user.count(kRecord) && user.at(kRecord).empty() && !amended.count(kRecord)) amended[kRecord];
  return amended;
}

bool StoreModel::IsHiddenByPattern(const Amendment& amendment, const Groups& amended) const {
  Names patterns;
  for (const std::string& member : RecordedOf(amended)) {
    if (IsPattern(member)) patterns.insert(member);
  }
  Groups seenAgain;
  for (const auto& [group, keys] : amendment.unset) {
    const bool isRecorded = IsPattern(group) && RecordedOf(user).count(group) != 0;
    if (keys.empty() && group != kRecord && !isRecorded) seenAgain[group];
  }
  return !MatchingOf(patterns, seenAgain).empty();
}

StoreModel::Touched StoreModel::FindTouched(const Amendment& amendment, const Groups& amended) const {
  Touched touched;
  for (const auto& group : amendment.replace) touched.whole.insert(group.first);
  for (const auto& group : amendment.drop) touched.whole.insert(group.first);
  for (const auto& [group, keys] : amendment.unset) {
    if (keys.empty()) touched.whole.insert(group);
  }
  for (const auto& group : UnrestrictedOf(_loadedDefaults)) {
    if (IsDeleted(user, group.first) != IsDeleted(amended, group.first)) touched.whole.insert(group.first);
  }
  for (const auto& [group, keys] : amendment.unset) {
    const bool isOfDefaults = UnrestrictedOf(_loadedDefaults).count(group) != 0 && !IsDeleted(amended, group);
    const bool isOfOthers = amended.count(group) != 0 || restricted.count(group) != 0;
    if (isOfDefaults && !isOfOthers && all.count(group) == 0) touched.whole.insert(group);
  }
  touched.keys = amendment.set;
  MergeInto(touched.keys, amendment.unset);
  touched.whole.erase(kRecord);
  touched.keys.erase(kRecord);
  return touched;
}

void StoreModel::Compute(const Touched& touched, const Groups& next) {
  for (const auto& [group, keys] : touched.keys) {
    for (const auto& setting : keys) {
      if (Has(next, group, setting.first)) {
        all[group][setting.first] = next.at(group).at(setting.first);
      } else if (all.count(group)) {
        all[group].erase(setting.first);
      }
    }
    if (next.count(group)) all[group];
    if (!next.count(group) && all.count(group) && all[group].empty()) all.erase(group);
    Unset(_unsaved, group, keys, false);
    if (!all.count(group)) _unsaved.erase(group);
  }
  for (const std::string& group : touched.whole) {
    all.erase(group);
    if (next.count(group)) all[group] = next.at(group);
    _unsaved.erase(group);
  }
}

Groups StoreModel::FindUnrestricted() const {
  return UnrestrictedOf(restricted);
}

Groups StoreModel::FindHiddenDefaults() const {
  Groups hidden;
  for (const auto& [group, keys] : UnrestrictedOf(_loadedDefaults)) {
    const bool isAlone = all.count(group) && !user.count(group) && !_unsaved.count(group) && !restricted.count(group);
    if (keys.empty() && !isAlone) hidden[group];
    for (const auto& [key, value] : keys) {
      const bool isOthers = Has(user, group, key) || Has(_unsaved, group, key) || Has(restricted, group, key);
      if (isOthers || !Has(all, group, key)) hidden[group][key] = value;
    }
  }
  hidden.erase(kRecord);
  return hidden;
}

}  // namespace tavix::test
