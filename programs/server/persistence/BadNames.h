#pragma once

#include <string>

#include "programs/server/persistence/FileSystem.h"

namespace tavix::daemon {

// A name that nothing has yet, under which a file is kept that can't be read: docs/persistence.md.
std::string FindBadName(FileSystem& files, const std::string& path);

}  // namespace tavix::daemon
