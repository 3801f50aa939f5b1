#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "tavix/osa/Export.h"
#include "tavix/settings/server/ChangeTicket.h"

namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// Where a connection's handler writes replies and notices. For hosts that hold messages until what they show is on a
// disk, or that keep one copy of a message for many connections.
//
// Each message is written in this order: BeginMessage, then its bytes to the stream, then a flush; or in one step by
// WriteSharedMessage, or by WriteMessage where there is no stream. Nothing of another message comes in between.
//
// Threads: one at a time, which holds the handler's output mutex; but HoldMessages is called by the handler's thread
//          without it, and may meet a message of another thread.
// Errors:  throws nothing, but for the stream, which fails as any stream may.
class TAVIX_EXPORT IClientOutput {
 public:
  virtual ~IClientOutput() = default;

  // Borrowed; the same stream for ever. Not asked for where there is none.
  virtual std::ostream& GetOstream() = 0;

  // The client has made a change: all further messages wait until it is durable. ticket: never 0.
  virtual void HoldMessages(ChangeTicket ticket) { static_cast<void>(ticket); }

  // A message follows that was made of the store's present contents. groups: those that it shows, or shows to be
  // missing; null: it may show any.
  virtual void BeginMessage(const common::GroupNameMatcher* groups) { static_cast<void>(groups); }

  // A message that other connections may be given, too. True: the output does what BeginMessage does, and has written
  // and flushed the message, or will; it may keep the text, which never changes. False: nothing was done.
  virtual bool WriteSharedMessage(const std::shared_ptr<const std::string>& text,
                                  const common::GroupNameMatcher* groups) {
    static_cast<void>(text);
    static_cast<void>(groups);
    return false;
  }

  // Whether the peer may still read what is written. If not, no more messages are made.
  virtual bool IsReachable() { return true; }

  // A notice could not be made, or not be written as a whole: nothing may follow it.
  virtual void OnMessageLost() {}

  // Whether messages are written to the stream. If not, each takes one WriteMessage: a stream for each of many
  // connections takes memory.
  virtual bool HasStream() const { return true; }

  // Does what BeginMessage does, and writes and flushes the message, or will. Called only where there is no stream.
  virtual void WriteMessage(std::string_view message, const common::GroupNameMatcher* groups) {
    static_cast<void>(message);
    static_cast<void>(groups);
  }
};

}  // namespace tavix::settings::server
