#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "tavix/settings/client/ReplySlot.h"
#include "tavix/settings/client/SendRight.h"

namespace tavix::core {
class Logger;
}
namespace tavix::settings::common {
class CallbackDispatcher;
}

namespace tavix::settings::client {

// Reads what the server sends over one connection of a multi-threaded client: notices go to the dispatcher, replies to
// the caller that awaits them.
//
// Threads: whoever has the right to read (ReadRight). Callbacks run on the thread that calls HandleMessage, the worker.
// Locks:   takes the right to write for a moment when a reply comes before its command is queued. None is held while
//          callbacks run.
// Errors:  what nobody awaits is logged and skipped. A message that is cut off by the end of the connection counts for
//          nothing; its caller is failed with the connection.
class MessageReader {
 public:
  // What the reader uses; all of it outlives the reader.
  struct Targets {
    ReplySlot& slot;
    SendRight& sendRight;
    common::CallbackDispatcher& dispatcher;
    const core::Logger& logger;
  };

  // in: outlives the reader.
  MessageReader(std::istream& in, const Targets& targets) : _in(in), _targets(targets) {}

  MessageReader(const MessageReader&) = delete;
  MessageReader& operator=(const MessageReader&) = delete;

  // Handles the message that begins with this line, and reads the rest of it. Throws std::runtime_error when the line
  // is empty, and whatever callbacks throw.
  void HandleMessage(const std::string& line);

  // Awaits the next message and handles it. False at the end of the input. Throws as HandleMessage.
  [[nodiscard]] bool ReadMessage();

  // A caller's, whose command is in the slot: reads replies until its outcome is posted. False when a notice, a line
  // that begins with a blank, an empty one or the end of the input comes before that: nothing of it is read. Throws
  // when memory runs out.
  [[nodiscard]] bool ReadOutcome();

  // Whether the next message has yet to come: no part of it was read together with what is before it, nor the end.
  bool AwaitsInput() const;

 private:
  bool SkipsRest(const std::string& line);
  void HandleNotice();
  void HandleReply(const std::string& word);
  std::unique_ptr<RemoteCommand> TakeCommand();
  ResponseStatus ReadReply(RemoteCommand& command, const std::string& word);
  void ExpectRest(const std::string& word);
  void ReportUnexpected() const;

  std::istream& _in;
  const Targets _targets;
  // The rest of a reply that nobody can use is read as further lines, but never as another call's reply.
  bool _skipsLine = false;
  bool _skipsUntilTerminator = false;
};

}  // namespace tavix::settings::client
