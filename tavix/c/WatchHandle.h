#pragma once

#include <optional>

#include "tavix/c/HandleUse.h"
#include "tavix/c/Watch.h"
#include "tavix/c/tavix-settings-c.h"

// A watch of the C interface.
//
// Threads: any; all but the first of those that call at once get TAVIX_BUSY.
struct tavix_watch {
  tavix_watch(const tavix::settings::client::ProtocolOptions& options, tavix::c::Watch::Names names, bool reportsFirst)
      : watch(options, std::move(names), reportsFirst) {}

  tavix::c::HandleOwner owner;
  tavix::c::Watch watch;
  std::optional<tavix::c::WatchedChange> reported;  // that was given last
  tavix_change change = {};                         // its bytes
};
