#pragma once

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// Has the process log as the options say; standard error is written as the journal expects it when it is the journal. A
// file that can't be used is warned of, in the other places or else on standard error: a device has to come up.
void ConfigureLog(const LogOptions& options);

// The same, but with a file that can't be used it throws osa::Exception, and the log stays as it was.
void ReconfigureLog(const LogOptions& options);

}  // namespace tavix::daemon
