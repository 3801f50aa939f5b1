#pragma once

namespace tavix::daemon {

// Reads what has come, as far as it is there, and drops it: some megabytes at most. Not every kind of socket drops
// bytes without a place for them. descriptor: a connected socket.
void DropUnreadInput(int descriptor) noexcept;

}  // namespace tavix::daemon
