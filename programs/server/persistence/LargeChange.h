#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

inline constexpr size_t kFewGroups = 16;     // can be described while nobody can change anything
inline constexpr size_t kManyGroups = 1000;  // take long to describe, however short they are

// Whether it takes long to describe a change: it has many groups, or a text of more than about "maxBytes".
bool IsLargeChange(const settings::server::LayerView& userSettings, const std::set<std::string>& changedGroups,
                   const core::IniFile& added, size_t maxBytes);

}  // namespace tavix::daemon
