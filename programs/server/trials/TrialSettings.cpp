#include "programs/server/trials/TrialSettings.h"

#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

using core::IniFile;
using settings::common::GroupNameMatcher;
using settings::server::LayerView;
using settings::server::PlannedChange;
using settings::server::SettingsManager;
using settings::server::StoreAmendment;
using KeyMap = IniFile::KeyMap;
using Names = std::set<std::string>;

namespace {

const std::string& RecordGroup() {
  static const std::string name = SettingsManager::kDeletedGroups;
  return name;
}

const KeyMap* FindGroup(const LayerView& layer, const std::string& name) {
  return layer.FindKeys(name);
}

const std::string* FindKey(const KeyMap* keys, const std::string& key) {
  if (!keys) return nullptr;
  const auto found = keys->find(key);
  return found == keys->end() ? nullptr : &found->second;
}

// Adds what is written with its old value.
class WrittenCollector {
 public:
  explicit WrittenCollector(const LayerView& user) : _user(user) {}

  OldSettings Take() { return std::move(_written); }

  void AddKey(const std::string& group, const std::string& key) {
    const KeyMap* const keys = FindGroup(_user, group);
    const std::string* const value = FindKey(keys, key);
    _written.emplace(SettingName{group, key}, value ? std::optional<std::string>(*value) : std::nullopt);
    if (keys && keys->empty()) AddEmpty(group, true);
  }

  // All keys that it has.
  void AddGroup(const std::string& group) {
    const KeyMap* const keys = FindGroup(_user, group);
    if (!keys) return;
    for (const auto& setting : *keys) AddKey(group, setting.first);
    if (keys->empty()) AddEmpty(group, true);
  }

  void AddSet(const IniFile& document) {
    for (const auto& [group, keys] : document) {
      for (const auto& setting : keys) AddKey(group, setting.first);
      const KeyMap* const now = FindGroup(_user, group);
      if (keys.empty()) AddEmpty(group, now && now->empty());  // it may lose its last key by the same change
    }
  }

  // A key that is not there neither goes nor comes.
  void AddUnset(const IniFile& document) {
    for (const auto& [group, keys] : document) {
      const KeyMap* const now = FindGroup(_user, group);
      for (const auto& setting : keys) {
        if (FindKey(now, setting.first)) AddKey(group, setting.first);
      }
      if (keys.empty()) AddGroup(group);
    }
  }

 private:
  void AddEmpty(const std::string& group, bool wasThere) {
    _written.emplace(SettingName{group, std::nullopt}, wasThere ? std::optional<std::string>("") : std::nullopt);
  }

  const LayerView _user;
  OldSettings _written;
};

// Knows what a change writes of the settings of a trial.
class Touch {
 public:
  // change: outlives the object, and does not change.
  explicit Touch(const PlannedChange& change) : _change(change) {}

  std::vector<OldSettings::iterator> Find(OldSettings& settings) {
    const Names groups = FindGroups(settings);
    std::vector<OldSettings::iterator> found;
    for (const std::string& group : groups) {
      for (auto at = FindFirst(settings, group); at != settings.end() && at->first.group == group; ++at) {
        if (Writes(at->first, at->second)) found.push_back(at);
      }
    }
    return found;
  }

 private:
  static OldSettings::iterator FindFirst(OldSettings& settings, const std::string& group) {
    return settings.lower_bound(SettingName{group, std::nullopt});
  }

  static void AddIfThere(OldSettings& settings, const std::string& group, Names& groups) {
    const auto first = FindFirst(settings, group);
    if (first != settings.end() && first->first.group == group) groups.insert(group);
  }

  // The groups of the settings that the change may write to.
  Names FindGroups(OldSettings& settings) {
    Names groups;
    for (const IniFile* const document : {_change.unset, _change.set, _change.replaced}) {
      if (!document) continue;
      for (const auto& group : *document) AddIfThere(settings, group.first, groups);
    }
    if (_change.removed) {
      for (const std::string& name : *_change.removed) AddIfThere(settings, name, groups);
    }
    AddIfThere(settings, RecordGroup(), groups);
    _asked.clear();
    if (_change.asked) FindAsked(settings);
    groups.insert(_asked.begin(), _asked.end());
    return groups;
  }

  void FindAsked(OldSettings& settings) {
    Names candidates;
    for (const std::string& name : _change.asked->GetNames()) AddIfThere(settings, name, candidates);
    for (const std::string& pattern : _change.asked->GetPatterns()) {
      const std::string_view begin = std::string_view(pattern).substr(0, pattern.find('*'));
      auto at = FindFirst(settings, std::string(begin));
      while (at != settings.end() && at->first.group.compare(0, begin.size(), begin) == 0) {
        candidates.insert(at->first.group);
        at = FindFirst(settings, at->first.group + '\0');  // the next group
      }
    }
    if (_change.recorded) candidates.erase(RecordGroup());
    _change.asked->GetMatchingGroups(candidates, _asked);
  }

  bool Writes(const SettingName& name, const std::optional<std::string>& old) const {
    if (_asked.count(name.group) != 0) return true;
    if (_change.removed && _change.removed->count(name.group) != 0) return true;
    if (name.group == RecordGroup() && name.key && WritesMember(*name.key)) return true;
    return WritesIn(_change.set, name, old) || WritesIn(_change.replaced, name, old) || Unsets(name);
  }

  // A member stands under its own text.
  bool WritesMember(const std::string& key) const {
    const KeyMap* const unset = _change.unset ? FindGroup(*_change.unset, key) : nullptr;
    return (unset && unset->empty()) || (_change.recorded && _change.recorded->count(key) != 0) ||
           (_change.recordSet && _change.recordSet->count(key) != 0) ||
           (_change.recordErased && _change.recordErased->count(key) != 0);
  }

  // Who sets anything in a group that was not there before, or that has no keys, relies on the group.
  bool WritesIn(const IniFile* document, const SettingName& name, const std::optional<std::string>& old) const {
    const KeyMap* const keys = document ? FindGroup(*document, name.group) : nullptr;
    if (!keys) return false;
    if (name.key) return keys->count(*name.key) != 0;
    const KeyMap* const now = FindGroup(_change.userSettings, name.group);
    return !old || keys->empty() || (now && now->empty());
  }

  bool Unsets(const SettingName& name) const {
    const KeyMap* const keys = _change.unset ? FindGroup(*_change.unset, name.group) : nullptr;
    return keys && (keys->empty() || (name.key && keys->count(*name.key) != 0));
  }

  const PlannedChange& _change;
  Names _asked;
};

// A group that came without keys, and still has none, goes. A record without members is none.
void RevertGroup(const std::string& group, bool wasThere, const LayerView& user, StoreAmendment& revert) {
  if (group == RecordGroup()) return;
  const KeyMap* const keys = FindGroup(user, group);
  if (wasThere) {
    if (!keys || !keys->empty()) revert.set[group];
  } else if (keys && keys->empty()) {
    revert.drop[group];
  }
}

constexpr size_t kNodeBytes = 160;  // of a container, beside the bytes of its texts

}  // namespace

size_t CountBytes(const SettingName& name) {
  return kNodeBytes + name.group.size() + (name.key ? name.key->size() : 0);
}

size_t CountBytes(const OldSettings::value_type& setting) {
  return CountBytes(setting.first) + (setting.second ? setting.second->size() : 0);
}

OldSettings FindWritten(const PlannedChange& change) {
  WrittenCollector written(change.userSettings);
  if (change.removed) {
    for (const std::string& name : *change.removed) written.AddGroup(name);
  }
  if (change.unset) written.AddUnset(*change.unset);
  if (change.set) written.AddSet(*change.set);
  if (change.replaced) written.AddSet(*change.replaced);
  if (change.recordSet) {
    for (const auto& member : *change.recordSet) written.AddKey(RecordGroup(), member.first);
  }
  if (change.recordErased) {
    for (const std::string& key : *change.recordErased) written.AddKey(RecordGroup(), key);
  }
  return written.Take();
}

std::vector<OldSettings::iterator> FindWritten(const PlannedChange& change, OldSettings& settings) {
  return Touch(change).Find(settings);
}

void AddToRevert(const OldSettings::value_type& setting, const LayerView& userSettings, StoreAmendment& revert) {
  const auto& [name, old] = setting;
  if (!name.key) return RevertGroup(name.group, old.has_value(), userSettings, revert);
  const std::string* const now = FindNow(name, userSettings);
  if (old && !(now && *now == *old)) revert.set[name.group][*name.key] = *old;
  if (!old && now) revert.unset[name.group][*name.key];
}

const std::string* FindNow(const SettingName& name, const LayerView& userSettings) {
  static const std::string none;
  const KeyMap* const keys = FindGroup(userSettings, name.group);
  if (name.key) return FindKey(keys, *name.key);
  return keys && keys->empty() ? &none : nullptr;
}

}  // namespace tavix::daemon
