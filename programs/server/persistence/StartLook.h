#pragma once

#include <string>

#include "programs/server/persistence/FileSystem.h"

namespace tavix::daemon {

// Looks at what stands at the path of the user settings before anything is locked, made or renamed there. Returns when
// a start may go on: nothing is there, or user settings of this daemon, damaged ones included, or a settings text.
//
// name: what a message names the file by.
// Errors: UserSettingsRefused with one sentence: for something else than a regular file, for a file that was never
//         ours, and for one that can't be read for a reason that is not the disk's. Nothing was touched.
void LookAtUserSettings(FileSystem& files, const std::string& path, const std::string& name);

}  // namespace tavix::daemon
