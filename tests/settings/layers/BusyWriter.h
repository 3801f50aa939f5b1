#pragma once

#include <random>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::test {

// Merges into, replaces and erases the groups "Busy/0" to "Busy/4" in a random order, as fast as the client takes it.
inline void ChangeAtFullSpeed(settings::TavixSettingsClient& client, int changes = 500) {
  std::mt19937 random(1);
  for (int change = 0; change < changes; ++change) {
    const std::string group = "Busy/" + std::to_string(random() % 5);
    core::IniFile settings;
    settings.SetInt(group, "key" + std::to_string(random() % 3), change);
    switch (random() % 4) {
      case 0:
        client.EraseGroups(group);
        break;
      case 1:
        client.OverwriteSettings(settings);
        break;
      default:
        client.MergeSettings(settings);
    }
  }
}

}  // namespace tavix::test
