#pragma once

#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"

// An amendment of a store that has one layer: what leaves it is gone, and nothing is recorded.
namespace tavix::programs::cli {

// The groups that it asks for or changes.
std::set<std::string> FindGroups(const settings::Amendment& amendment);

// These groups as they are behind it; nothing when a condition does not hold. Groups that are changed twice are not
// looked for.
std::optional<core::IniFile> ApplyAmendment(const settings::Amendment& amendment, core::IniFile groups);

// Whether the group is gone, or a key of it.
bool LosesSomething(const core::IniFile& before, const core::IniFile& after, const std::string& group);

}  // namespace tavix::programs::cli
