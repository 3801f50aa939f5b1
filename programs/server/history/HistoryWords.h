#pragma once

#include <set>
#include <string>
#include <string_view>

#include "programs/server/persistence/KeptHistory.h"
#include "tavix/settings/server/IExtraCommands.h"

namespace tavix::daemon {

// The requests about earlier user settings: docs/protocol.md. `history` shows changes.
//
// Threads: as IExtraCommands; all of them read files, and are left to the slow lane.
class HistoryWords : public settings::server::IExtraCommands {
 public:
  // history: outlives the object.
  explicit HistoryWords(const KeptHistory& history) : _history(history) {}

  const Command* Find(std::string_view word) const override;
  Answer CarryOut(const Call& call) override;
  void AddFeatures(std::set<std::string>& features) const override;

 private:
  struct Word;
  static const Word* FindWord(std::string_view word);

  Answer ShowHistory(const Call& call);

  const KeptHistory& _history;
};

}  // namespace tavix::daemon
