#pragma once

#include <vector>

#include "bench/Descriptor.h"
#include "bench/Exchange.h"

namespace tavix::bench {

// Keeps one request outstanding on each connection for "seconds", after a warm-up of a quarter of that, and returns how
// many were answered in a second. Only the replies' lengths are looked at.
double MeasureClosedLoop(const std::vector<Descriptor>& connections, const Exchange& exchange, double seconds);

}  // namespace tavix::bench
