#pragma once

#include <string>
#include <vector>

#include "programs/server/options/GivenOption.h"

namespace tavix::daemon {

// The options that a configuration file gives: settings text with the one group [Server], whose keys are options. The
// values are right: each was tried.
//
// Throws osa::Exception naming the file, and the line or the key and its value. A missing file gives nothing, unless it
// "mustExist".
std::vector<GivenOption> ReadConfigurationFile(const std::string& path, bool mustExist);

}  // namespace tavix::daemon
