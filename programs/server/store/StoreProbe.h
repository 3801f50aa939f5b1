#pragma once

#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// Returns once every lock that requests need could be had: the notification gate, the dispatcher's mutex, the store's
// read lock. As long as one is held, this waits.
void ProbeStore(const settings::server::SettingsManager& manager);

}  // namespace tavix::daemon
