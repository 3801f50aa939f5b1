#pragma once

#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/SharedPlaces.h"

namespace tavix::test {

// User settings of a store as loading leaves them: groups that readers see alike have no keys.
struct SharedUserSettings {
  core::IniFile settings;
  settings::server::SharedPlaces shared;
};

inline SharedUserSettings ShareEqualGroups(const core::IniFile& all, core::IniFile user) {
  SharedUserSettings result;
  result.settings = std::move(user);
  result.shared = settings::server::SharedPlaces(result.settings.GetGroups().size());
  for (auto& [name, keys] : result.settings) {
    const auto seen = all.GetGroups().find(name);
    if (seen == all.end() || seen->second != keys) continue;
    result.shared.Add(keys, keys.size());
    keys.clear();
  }
  return result;
}

}  // namespace tavix::test
