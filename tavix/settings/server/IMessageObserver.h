#pragma once

#include <iosfwd>

#include "tavix/osa/Export.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// Told what a connection's peer is about to learn of the store. For hosts that keep messages back, until what they show
// is on a disk for instance.
//
// Threads: called by whoever writes a message, which holds the connection's output mutex, and for notices what a
//          notification holds.
// Errors:  throws nothing.
class TAVIX_EXPORT IMessageObserver {
 public:
  virtual ~IMessageObserver() = default;

  // A message was made of the store's present contents, and is written to "out" next, and flushed. groups: those that
  // it shows, or shows to be missing; null: it may tell of any.
  virtual void OnMessage(std::ostream& out, const common::GroupNameMatcher* groups) = 0;

  // A notice for "out" could not be made, or not wholly be written: nothing may follow it.
  virtual void OnMessageLost(std::ostream& out) { static_cast<void>(out); }
};

}  // namespace tavix::settings::server
