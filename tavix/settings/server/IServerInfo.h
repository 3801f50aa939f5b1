#pragma once

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::server {

// What a host reports of itself to a client that asks with `info server`: docs/protocol.md lists the figures of the
// daemon.
//
// Threads: called on the thread of any handler, with none of the store's locks held.
// Errors:  what it throws ends the connection.
class TAVIX_EXPORT IServerInfo {
 public:
  virtual ~IServerInfo() = default;

  // Adds each figure, by its name. Clients wait for it on a thread that serves others, so it takes the same short time
  // whatever the store holds.
  virtual void AddFigures(core::IniFile::KeyMap& figures) const = 0;
};

}  // namespace tavix::settings::server
