#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// Told what the peer of a connection over plain streams is about to learn of the store. For hosts that hold messages,
// until what they show is on a disk for instance. A host that has an object for each connection's output makes that an
// IClientOutput instead, and needs no observer.
//
// Threads: called by the thread that writes a message, which holds the connection's output mutex.
// Errors:  throws nothing.
class TAVIX_EXPORT IMessageObserver {
 public:
  virtual ~IMessageObserver() = default;

  // A message was made of the store's present contents, and is written to "out" next, and flushed. groups: those that
  // it shows, or shows to be missing; null: it may show any.
  virtual void OnMessage(std::ostream& out, const common::GroupNameMatcher* groups) = 0;

  // The same for a message that several connections may be told. True: the observer took it over, did what OnMessage
  // does, and wrote and flushed it to "out", or will; it may keep the text, which never changes. False: nothing was
  // done, and OnMessage is called next. Throws nothing either.
  virtual bool OnSharedMessage(std::ostream& out, const std::shared_ptr<const std::string>& text,
                               const common::GroupNameMatcher* groups) {
    static_cast<void>(out);
    static_cast<void>(text);
    static_cast<void>(groups);
    return false;
  }

  // Whether anybody may still read what is written to "out". If not, no more messages are made for it.
  virtual bool IsReachable(std::ostream& out) {
    static_cast<void>(out);
    return true;
  }

  // A notice for "out" could not be made, or not wholly be written: nothing may follow it.
  virtual void OnMessageLost(std::ostream& out) { static_cast<void>(out); }
};

}  // namespace tavix::settings::server
