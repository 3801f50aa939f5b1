#pragma once

#include <string>

#include "programs/server/metrics/Counters.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// Every figure of the daemon as Prometheus' text; docs/operations.md lists them. None has a label for a group or a key.
// Takes the store's read lock for a moment.
std::string ComposeMetrics(const Counters& counters, const settings::server::SettingsManager& manager);

}  // namespace tavix::daemon
