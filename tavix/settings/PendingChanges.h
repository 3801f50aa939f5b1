#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings {

// What change notices said and nobody has applied yet. Each group is as its latest notice had it. A plain value.
class PendingChanges {
 public:
  // Takes over the groups that the notice names, and no others that its document may hold. A group that is named but
  // not in the document no longer exists.
  void Add(const std::set<std::string>& groups, const core::IniFile& settings) {
    for (const std::string& group : groups) {
      _settings.RemoveGroup(group);
      _settings.MergeSettings(settings, group);
      _groups.insert(group);
    }
  }

  bool IsEmpty() const { return _groups.empty(); }
  const std::set<std::string>& GetGroups() const { return _groups; }

  // Makes each changed group of "target" what the notices said, and forgets them.
  void ApplyTo(core::IniFile& target) {
    for (const std::string& group : _groups) target.RemoveGroup(group);
    target.MergeSettings(std::move(_settings));
    Clear();
  }

  void Clear() {
    _groups.clear();
    _settings.Clear();
  }

 private:
  std::set<std::string> _groups;
  core::IniFile _settings;
};

}  // namespace tavix::settings
