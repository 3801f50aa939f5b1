#include "programs/server/history/SettingsFilter.h"

#include <set>

#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::SettingsManager;

SettingsFilter::SettingsFilter(const std::string& nameOrPattern) : _isForAll(nameOrPattern.empty()) {
  _matcher.AddNameOrPattern(_isForAll ? "*" : nameOrPattern);
}

void SettingsFilter::Reduce(IniFile& settings) const {
  if (_isForAll) return;
  IniFile kept;
  for (const auto& [group, keys] : settings) {
    if (Matches(group)) {
      kept[group] = keys;
    } else if (group == SettingsManager::kDeletedGroups) {
      for (const auto& [key, member] : keys) {
        if (Matches(key) || Matches(member)) kept[group].emplace(key, member);
      }
    }
  }
  settings = std::move(kept);
}

void SettingsFilter::Reduce(HistoryEntry& entry) const {
  for (IniFile* settings : {&entry.was, &entry.wasNot, &entry.is}) Reduce(*settings);
}

bool SettingsFilter::Matches(const std::string& name) const {
  std::set<std::string> matching;
  _matcher.GetMatchingGroups(std::set<std::string>{name}, matching);
  return !matching.empty();
}

}  // namespace tavix::daemon
