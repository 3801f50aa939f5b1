#include "programs/server/persistence/LargeChange.h"

#include <algorithm>

namespace tavix::daemon {

using settings::server::LayerView;

namespace {

constexpr size_t kBytesOfSetting = 8;  // its line's, beside key and value

// The bytes of the groups' text, about; not counted much beyond "max".
size_t CountBytes(const LayerView& layer, const std::set<std::string>& groups, size_t max) {
  size_t bytes = 0;
  for (auto name = groups.begin(); name != groups.end() && bytes <= max; ++name) {
    const LayerView::Keys* const keys = layer.FindKeys(*name);
    if (!keys) continue;
    for (const auto& [key, value] : *keys) bytes += kBytesOfSetting + key.size() + value.size();
  }
  return bytes;
}

}  // namespace

bool IsLargeChange(const LayerView& userSettings, const std::set<std::string>& changedGroups,
                   const core::IniFile& added, size_t maxBytes) {
  if (changedGroups.size() > kManyGroups || CountBytes(userSettings, changedGroups, maxBytes) > maxBytes) return true;
  return std::any_of(added.begin(), added.end(), [](const auto& group) { return group.second.size() > kManyGroups; });
}

}  // namespace tavix::daemon
