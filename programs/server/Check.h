#pragma once

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// Loads everything and serves nothing. Standard output tells what was loaded and what a start would warn of, standard
// error all that would keep the daemon from starting, or from keeping changes; writes nothing else. Looks at files with
// the rights of the caller. Returns the ExitCode of such a start; kExitConfiguration for one that would serve and not
// keep changes, or leave groups out; else 0.
int RunCheck(const Options& options);

}  // namespace tavix::daemon
