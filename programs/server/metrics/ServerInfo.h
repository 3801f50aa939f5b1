#pragma once

#include <string>
#include <utility>

#include "programs/server/metrics/Counters.h"
#include "tavix/settings/server/IServerInfo.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// Where the daemon keeps changes.
struct KeptChanges {
  std::string path;        // of the user settings; empty: nothing is kept
  std::string durability;  // as the option spells it
};

// What the daemon answers to `info server`; docs/protocol.md lists the figures.
//
// Threads: any.
// Locks:   the store's read lock for a moment, and that of the current failure.
class ServerInfo : public settings::server::IServerInfo {
 public:
  // counters, manager: outlive the object.
  ServerInfo(const Counters& counters, const settings::server::SettingsManager& manager, KeptChanges kept)
      : _counters(counters), _manager(manager), _kept(std::move(kept)) {}

  void AddFigures(core::IniFile::KeyMap& figures) const override;

 private:
  void AddLayers(core::IniFile::KeyMap& figures) const;
  void AddKept(core::IniFile::KeyMap& figures) const;

  const Counters& _counters;
  const settings::server::SettingsManager& _manager;
  const KeptChanges _kept;
};

}  // namespace tavix::daemon
