#pragma once

namespace tavix::settings::client {

// Whether the settings server of the device saves what is changed, and nothing keeps it from that. Asks over a
// connection of its own. True, too, when the server is older than the question or does not answer it, which is logged.
//
// Threads: any. Waits for a server that is silent for 2 s.
bool IsKeptByServer();

}  // namespace tavix::settings::client
