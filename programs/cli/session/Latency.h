#pragma once

#include "programs/common/client/Session.h"

namespace tavix::programs::cli {

// How long a store takes to answer, in milliseconds: the quickest of three readings of one group that does not exist,
// as what is measured is the way and not what else the machine does. The store's size does not matter.
double MeasureLatency(Session& session);

}  // namespace tavix::programs::cli
