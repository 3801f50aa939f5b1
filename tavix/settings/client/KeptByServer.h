#pragma once

namespace tavix::settings::client {

// Whether a store saves what is changed.
enum class Keeping {
  kKept,     // or the server is older than the question
  kNotKept,  // it saves nothing, or its disk fails
  kUnknown,  // the server could not be asked, or did not answer
};

// Asks the settings server of the device over a connection of its own. Logs why the answer is kUnknown.
//
// Threads: any. Waits for a server that is silent for 2 s.
// Errors:  none; they are kUnknown, std::bad_alloc included: the change that the question is about was made.
Keeping AskServerForKeeping();

}  // namespace tavix::settings::client
