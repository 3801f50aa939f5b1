#pragma once

#include <string>

#include "programs/bridge/core/Keys.h"
#include "tavix/settings/Amendment.h"

namespace tavix::bridge {

// Adds to "amendment" what makes a group that holds "before" hold "after", key by key, and the conditions under which
// that is right: the keys that change are still what they were. Keys that others add meanwhile stay. canRemove: else
// keys that would go stay, too. Returns whether keys stay for that reason.
bool AddChange(settings::Amendment& amendment, const std::string& group, const Keys& before, const Keys& after,
               bool canRemove);

bool IsEmpty(const settings::Amendment& amendment);

}  // namespace tavix::bridge
