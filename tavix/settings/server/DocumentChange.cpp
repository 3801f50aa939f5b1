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

std::set<std::string> FindDifference(const IniFile& document, const std::set<std::string>& removed,
                                     const IniFile& settings) {
  std::set<std::string> different;
  const IniFile::GroupMap& groups = document.GetGroups();
  for (const std::string& name : removed) {
    const auto before = groups.find(name);
    const auto after = settings.GetGroups().find(name);
    const bool isThere = before != groups.end();
    const bool isSet = after != settings.end();
    if (isThere && isSet ? before->second != after->second : isThere != isSet) different.insert(different.end(), name);
  }
  for (const auto& [name, keys] : settings) {
    if (removed.count(name) != 0) continue;
    const auto own = groups.find(name);
    if (own == groups.end() || !HoldsKeys(own->second, keys)) different.insert(name);
  }
  return different;
}

IniFile CopyGroups(const IniFile& document, const std::set<std::string>& names) {
  IniFile copy;
  for (const std::string& name : names) copy.MergeSettings(document, name);
  return copy;
}

}  // namespace tavix::settings::server
