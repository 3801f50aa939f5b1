#pragma once

#include <cstddef>

#include "tavix/settings/server/ClientHandler.h"

namespace tavix::settings::server {

// What the sources of ClientHandler share: one reads requests and hands them out, the other carries them out, a method
// for each command of the protocol.

// What takes less than a millisecond.
constexpr size_t kShortWork = 2'000;     // groups of the store that are visited
constexpr size_t kShortNotices = 1'024;  // groups in notices of a change

// Thrown by a request that is given up before anything came of it.
struct TooLong {};

}  // namespace tavix::settings::server
