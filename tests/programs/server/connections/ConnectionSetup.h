#pragma once

#include "programs/server/connections/Connection.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::test {

// What connections of a test share: an empty store, or that of a persister, and the bounds by default.
struct ConnectionSetup {
  ConnectionSetup() = default;
  explicit ConnectionSetup(settings::server::ISettingsPersister& persister, bool defersLoad = false)
      : store(&persister, nullptr, nullptr, defersLoad) {}

  // lane: may be null.
  daemon::Connection::Shared GetShared(daemon::SlowLane* lane = nullptr) {
    return {&env, limits, bounds, counters, nullptr, 5, nullptr, lane};
  }

  settings::server::SettingsManager store;
  settings::server::SerializationManager serializers;
  settings::server::ServerEnv env{&store, &serializers};
  daemon::Limits limits;
  daemon::SharedBounds bounds{daemon::SharedBound(limits.allRequestBytes), daemon::SharedBound(limits.allBacklogBytes)};
  daemon::Counters counters;
};

}  // namespace tavix::test
