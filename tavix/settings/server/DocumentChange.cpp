#include "tavix/settings/server/DocumentChange.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "tavix/settings/server/DocumentTally.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

// Searches for names in ascending order. Where they lie close to one another, to go on takes less than to begin again.
class AscendingSearch {
 public:
  explicit AscendingSearch(IniFile::GroupMap& groups) : _groups(groups), _at(groups.begin()) {}

  // The first group that is not less than the name.
  IniFile::iterator Find(const std::string& name) {
    constexpr int kCloseBy = 3;
    for (int step = 0; step < kCloseBy && _at != _groups.end() && _at->first < name; ++step) ++_at;
    if (_at != _groups.end() && _at->first < name) _at = _groups.lower_bound(name);
    return _at;
  }

  void GoOnFrom(IniFile::iterator at) { _at = at; }

 private:
  IniFile::GroupMap& _groups;
  IniFile::iterator _at;
};

}  // namespace

bool IsLarge(const IniFile& document) {
  constexpr size_t kFewGroups = 64;
  constexpr size_t kFewBytes = 16 * 1024;
  constexpr size_t kBytesOfKey = 64;
  if (document.GetGroups().size() > kFewGroups) return true;
  size_t bytes = 0;
  for (const auto& group : document) {
    for (const auto& [key, value] : group.second) {
      bytes += kBytesOfKey + key.size() + value.size();
      if (bytes > kFewBytes) return true;
    }
  }
  return false;
}

void MoveGroups(IniFile& document, DocumentTally& tally, const std::set<std::string>& names,
                IniFile& removed) noexcept {
  IniFile::GroupMap& groups = document.GetMutableGroups();
  IniFile::GroupMap& target = removed.GetMutableGroups();
  AscendingSearch search(groups);
  for (const std::string& name : names) {
    const auto group = search.Find(name);
    if (group == groups.end()) return;
    if (group->first != name) continue;
    search.GoOnFrom(std::next(group));
    tally.OnGroupRemoved(name, group->second.size());
    target.insert(target.end(), groups.extract(group));
  }
}

bool HoldsKeys(const IniFile::KeyMap& keys, const IniFile::KeyMap& wanted) {
  return std::all_of(wanted.begin(), wanted.end(), [&](const auto& setting) {
    const auto key = keys.find(setting.first);
    return key != keys.end() && key->second == setting.second;
  });
}

size_t CountMissingKeys(const IniFile::KeyMap& keys, const IniFile::KeyMap& wanted) {
  size_t missing = wanted.size();
  for (const auto& setting : wanted) missing -= keys.count(setting.first);
  return missing;
}

void MoveKeys(IniFile::KeyMap& target, IniFile::KeyMap& source) noexcept {
  for (auto next = source.begin(); next != source.end();) {
    const auto setting = next++;
    const auto key = target.find(setting->first);
    if (key == target.end()) {
      target.insert(source.extract(setting));
    } else {
      key->second.swap(setting->second);
    }
  }
}

bool HoldsValues(const IniFile& document, IniFile::const_iterator group) {
  if (group->second.empty()) return true;
  const auto own = document.GetGroups().find(group->first);
  return own != document.end() && HoldsKeys(own->second, group->second);
}

std::set<std::string> FindDifference(const LayerView& layer, const std::set<std::string>& removed,
                                     const IniFile& settings) {
  std::set<std::string> different;
  for (const std::string& name : removed) {
    const IniFile::KeyMap* const before = layer.FindKeys(name);
    const auto after = settings.GetGroups().find(name);
    const bool isSet = after != settings.end();
    if (before && isSet ? *before != after->second : (before != nullptr) != isSet)
      different.insert(different.end(), name);
  }
  return different;
}

IniFile CopyGroups(const LayerView& layer, const std::set<std::string>& names) {
  IniFile copy;
  for (const std::string& name : names) {
    if (const auto group = layer.Find(name)) copy.MergeGroup(*group);
  }
  return copy;
}

}  // namespace tavix::settings::server
