#pragma once

#include <string>

#include "tavix/c/HandleUse.h"
#include "tavix/c/StoreClient.h"
#include "tavix/c/tavix-settings-c.h"

// A client of the C interface.
//
// Threads: any; all but the first of those that call at once get TAVIX_BUSY.
struct tavix_client {
  explicit tavix_client(const tavix::settings::client::ProtocolOptions& options) : store(options) {}

  tavix::c::HandleOwner owner;
  tavix::c::StoreClient store;
  std::string value;  // that was read last
};
