#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "programs/server/history/EarlierSettings.h"
#include "programs/server/history/SettingsFilter.h"
#include "programs/server/persistence/Checkpoints.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/KeptHistory.h"
#include "tavix/settings/server/IExtraCommands.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// The requests that bring user settings back as they were: `rollback REVISION|@NAME [PATTERN]`, and `test-rollback`,
// which shows what that would change (docs/protocol.md).
//
// Threads: as IExtraCommands; both read files, and are left to the slow lane.
class RollbackWords : public settings::server::IExtraCommands {
 public:
  // All outlive the object. maxBytes: that the old values may take in memory, about; 0: any number.
  RollbackWords(settings::server::SettingsManager& store, const KeptHistory& history, const Checkpoints& checkpoints,
                const DurabilityGate& gate, size_t maxBytes)
      : _store(store), _history(history), _checkpoints(checkpoints), _gate(gate), _maxBytes(maxBytes) {}

  const Command* Find(std::string_view word) const override;
  Answer CarryOut(const Call& call) override;
  void AddFeatures(std::set<std::string>& features) const override;

 private:
  Answer RollBack(const Call& call);
  std::unique_ptr<EarlierSettings> FindEarlier(const std::string& name, const SettingsFilter& filter) const;

  settings::server::SettingsManager& _store;
  const KeptHistory& _history;
  const Checkpoints& _checkpoints;
  const DurabilityGate& _gate;
  const size_t _maxBytes;
};

}  // namespace tavix::daemon
