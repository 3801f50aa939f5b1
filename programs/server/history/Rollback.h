#pragma once

#include <cstdint>

#include "programs/server/history/EarlierSettings.h"
#include "programs/server/history/RollbackPlan.h"
#include "programs/server/persistence/HistoryEntry.h"
#include "programs/server/persistence/KeptHistory.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeTicket.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// Brings user settings back as they were, by one change of the store. What is to be changed is found out part by part,
// so that nobody waits for long, and changed only if no other change was saved in between. Else it is found out anew,
// and at last in one go with the store locked.
//
// Threads: one. Subscribers are called on it.
// Locks:   "SettingsMutex", for each part, and for the change.
// Errors:  osa::Exception with a sentence for the client, settings::server::RefusedChange, std::bad_alloc; nothing is
//          changed then.
class Rollback {
 public:
  // All outlive the object.
  Rollback(settings::server::SettingsManager& store, const KeptHistory& history, EarlierSettings& earlier,
           const SettingsFilter& filter)
      : _store(store), _history(history), _earlier(earlier), _plan(filter) {}

  // Returns the entry of the change that it made; without settings: there was no difference. ticket: as the store's.
  HistoryEntry Make(const settings::server::ChangeOrigin& origin, settings::server::ChangeTicket& ticket);

  // Returns what Make would return, and changes nothing.
  HistoryEntry Test(const settings::server::ChangeOrigin& origin);

 private:
  void PlanInParts();
  bool IsOutdated();
  bool TryToPlanLocked(int round, const settings::server::LayerView& userSettings);
  HistoryEntry MakeEntry(const settings::server::ChangeOrigin& origin) const;

  settings::server::SettingsManager& _store;
  const KeptHistory& _history;
  EarlierSettings& _earlier;
  RollbackPlan _plan;
  uint64_t _planned = 0;   // the plan is for the settings behind this change
  uint64_t _revision = 0;  // of the rollback
};

}  // namespace tavix::daemon
