#pragma once

#include <set>
#include <string>
#include <string_view>

#include "programs/server/persistence/Checkpoints.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/KeptHistory.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/settings/server/IExtraCommands.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// The requests about copies of the user settings: `checkpoint [NAME]` and `forget NAME`, docs/protocol.md.
//
// Threads: as IExtraCommands; both touch files, and are left to the slow lane.
class CheckpointWords : public settings::server::IExtraCommands {
 public:
  // All outlive the object.
  CheckpointWords(Checkpoints& checkpoints, const KeptHistory& history, const settings::server::SettingsManager& store,
                  const DurabilityGate& gate)
      : _checkpoints(checkpoints), _history(history), _store(store), _gate(gate) {}

  const Command* Find(std::string_view word) const override;
  Answer CarryOut(const Call& call) override;
  void AddFeatures(std::set<std::string>&) const override {}  // that of the history has them

 private:
  Answer Make(const std::string& name);
  Answer List() const;
  bool TryToSpell(core::StringOstream& text) const;
  void SpellCopy(core::StringOstream& text) const;

  Checkpoints& _checkpoints;
  const KeptHistory& _history;
  const settings::server::SettingsManager& _store;
  const DurabilityGate& _gate;
};

}  // namespace tavix::daemon
