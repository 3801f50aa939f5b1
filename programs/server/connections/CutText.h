#pragma once

#include "programs/server/metrics/Counters.h"

namespace tavix::daemon {

// Why a connection was cut, as the log says it before a figure.
const char* TextOf(CutReason reason);

}  // namespace tavix::daemon
