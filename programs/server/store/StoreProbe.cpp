#include "programs/server/store/StoreProbe.h"

#include "tavix/core/IniFile.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::daemon {

void ProbeStore(const settings::server::SettingsManager& manager) {
  {
    osa::MutexAutoLock gate(manager.GetNotificationGate());
    manager.GetDispatcher().Probe();
  }
  core::IniFile nothing;
  manager.GetGroups(nothing, settings::common::GroupNameMatcher());
}

}  // namespace tavix::daemon
