#pragma once

#include <optional>

#include "tavix/core/MemoryStream.h"

namespace tavix::settings::server {

// A stream that one message is made in. The thread keeps it, with some memory, for its next message: connections are
// many, and few of them have a message at a time.
//
// Threads: the one that makes it, which destroys it, too.
class MessageText {
 public:
  MessageText();
  ~MessageText();

  MessageText(const MessageText&) = delete;
  MessageText& operator=(const MessageText&) = delete;

  core::StringOstream& GetStream() { return *_stream; }

 private:
  std::optional<core::StringOstream> _own;  // when the thread's is in use
  core::StringOstream* _stream;
};

}  // namespace tavix::settings::server
