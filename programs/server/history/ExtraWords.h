#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/settings/server/IExtraCommands.h"

namespace tavix::daemon {

// The requests that the daemon adds to those of the protocol, of several owners: the first one that knows a word has
// it.
//
// Threads: owners are added before the first request; then as IExtraCommands.
class ExtraWords : public settings::server::IExtraCommands {
 public:
  // owner: outlives the object.
  void Add(settings::server::IExtraCommands& owner) { _owners.push_back(&owner); }

  bool IsEmpty() const { return _owners.empty(); }

  const Command* Find(std::string_view word) const override;
  Answer CarryOut(const Call& call) override;
  void AddFeatures(std::set<std::string>& features) const override;

 private:
  std::vector<settings::server::IExtraCommands*> _owners;
};

}  // namespace tavix::daemon
