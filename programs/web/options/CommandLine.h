#pragma once

#include <string>

#include "programs/web/options/Options.h"

namespace tavix::web {

// False when the words are wrong; what is wrong is printed then.
bool ParseCommandLine(int argc, char** argv, Options& options);

std::string FormatHelp();

}  // namespace tavix::web
