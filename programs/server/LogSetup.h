#pragma once

#include "programs/server/Options.h"

namespace tavix::daemon {

// Has the process log as the options say; standard error is written as the journal expects it when it is the journal.
void ConfigureLog(const LogOptions& options);

}  // namespace tavix::daemon
