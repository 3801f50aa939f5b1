#pragma once

#include "tavix/osa/Export.h"

namespace tavix::settings {

// Is called when a client has a connection again, after which changes may have been missed.
//
// Threads: calls come on the client's own thread.
class TAVIX_EXPORT IConnectionObserver {
 public:
  virtual ~IConnectionObserver() = default;

  // A connection was made, the first one included, and all subscriptions are in force on it. Runs before
  // anything is received: it must return soon, and can't make calls that wait for a reply, nor add or remove observers.
  // What it throws is logged.
  virtual void OnConnected() = 0;
};

}  // namespace tavix::settings
