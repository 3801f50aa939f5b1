#pragma once

#include <vector>

#include "bench/DescriptorIo.h"
#include "bench/Exchange.h"

namespace tavix::bench {

// What one connection does over and over, in turn; all replies are equally long.
using Script = std::vector<Exchange>;

// Keeps one request outstanding on each connection for "seconds", after a warm-up of a quarter of that, and returns how
// many were answered in a second. Only the replies' lengths are looked at. scripts: one for each connection.
double MeasureClosedLoop(const std::vector<osa::Descriptor>& connections, const std::vector<Script>& scripts,
                         double seconds);

// The same with one exchange for all.
double MeasureClosedLoop(const std::vector<osa::Descriptor>& connections, const Exchange& exchange, double seconds);

}  // namespace tavix::bench
