#pragma once

#include <string_view>

#include "tavix/settings/server/ClientIdentity.h"

namespace tavix::settings::server {

// Who asked a store for a change, and how: what a persister may record beside the change. A plain value.
//
// Owns: nothing. The texts are valid until the change is made.
struct ChangeOrigin {
  ClientIdentity client;
  std::string_view command;  // the word of the request; empty: the store's host made the change by a call
  std::string_view note;     // what the client noted for this change, as it came; empty: nothing
};

}  // namespace tavix::settings::server
