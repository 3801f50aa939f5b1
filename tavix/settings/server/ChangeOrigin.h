#pragma once

#include <cstddef>
#include <string_view>

#include "tavix/settings/server/ClientIdentity.h"

namespace tavix::settings::server {

// Who asked a store for a change, and how: what a persister may record beside the change. A plain value.
//
// Owns: nothing. The texts are valid until the change is made.
struct ChangeOrigin {
  static constexpr size_t kMaxTrialBytes = 256;  // a longer text of a client is cut behind one more

  ClientIdentity client;
  std::string_view command;  // the word of the request; empty: the store's host made the change by a call
  std::string_view note;     // what the client noted for this change, as it came; empty: nothing

  // What the client asked for by a line that goes with this change, as it came (IExtraCommands::Command); empty:
  // nothing. For a revert: whose.
  std::string_view trial = {};

  // The change brings back what was there before somebody tried something else. No bound of the store refuses it.
  bool isRevert = false;
};

}  // namespace tavix::settings::server
