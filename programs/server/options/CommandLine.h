#pragma once

#include <vector>

#include "programs/server/options/GivenOption.h"

namespace tavix::daemon {

// Reads the command line. False when it is wrong: standard error then says how.
[[nodiscard]] bool ParseCommandLine(int argc, char** argv, std::vector<GivenOption>& given);

// What the command line asks for.
Options::Action FindAction(const std::vector<GivenOption>& commandLine);

// The bounds that hold where no option gives others, on this machine.
Limits FindDefaultLimits();

// All options: what the command line gives, for the rest what the configuration file gives, and for the rest the
// defaults. Throws osa::Exception naming file, key and value. commandLine: as ParseCommandLine left it.
Options ReadOptions(const std::vector<GivenOption>& commandLine);

}  // namespace tavix::daemon
