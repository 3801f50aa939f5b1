#pragma once

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// Loads everything and serves nothing. Standard output tells what was loaded and what a start would warn of, standard
// error all that would keep the daemon from starting; writes nothing else. Looks at files with the rights of whoever
// asks. Returns the ExitCode of a start, 0 when it would serve.
int RunCheck(const Options& options);

}  // namespace tavix::daemon
