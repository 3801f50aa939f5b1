#pragma once

#include <optional>
#include <string>
#include <utility>

#include "programs/server/history/EarlierSettings.h"
#include "programs/server/persistence/KeptHistory.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// The user settings of a checkpoint.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
class SettingsOfCheckpoint : public EarlierSettings {
 public:
  // history: outlives the object.
  SettingsOfCheckpoint(const KeptHistory& history, core::IniFile settings)
      : _history(history), _settings(std::move(settings)) {}

  uint64_t Begin() override;
  bool BeginLocked() override;
  bool ComparePart(const settings::server::LayerView& userSettings, RollbackPlan& plan) override;

 private:
  const KeptHistory& _history;
  const core::IniFile _settings;
  std::optional<std::string> _last;  // the last group that was compared; empty: none was
};

}  // namespace tavix::daemon
