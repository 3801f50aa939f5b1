#pragma once

#include <cstdint>

namespace tavix::settings::server {

// The place of a saved change in the order in which its persister makes changes durable: a change is durable no earlier
// than those with lower tickets. 0: nothing has to wait for it.
using ChangeTicket = uint64_t;

}  // namespace tavix::settings::server
