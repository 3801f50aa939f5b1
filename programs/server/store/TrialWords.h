#pragma once

#include "programs/server/store/StoreTrials.h"
#include "tavix/settings/server/IExtraCommands.h"

namespace tavix::daemon {

// The requests about trials: `try SECONDS NAME`, `trial [NAME]`, `confirm NAME`, `revert NAME`.
//
// Threads: as IExtraCommands.
class TrialWords : public settings::server::IExtraCommands {
 public:
  // trials: outlive the object.
  explicit TrialWords(StoreTrials& trials) : _trials(trials) {}

  const Command* Find(std::string_view word) const override;
  Answer CarryOut(const Call& call) override;
  void AddFeatures(std::set<std::string>& features) const override;

 private:
  void Do(const Call& call, const std::string& name, Answer& answer);

  StoreTrials& _trials;
};

}  // namespace tavix::daemon
