#pragma once

#include <iosfwd>
#include <memory>
#include <string>

namespace tavix::settings::client {

// One operation on its way over a connection: writes the request, and reads what follows the first line of the reply.
//
// Threads: one at a time: the caller writes the request; the caller, or the worker of a MultiThreaded client, reads the
//          reply.
// Owns:    the keyword, and _keepAlive. What the derived classes point to is the caller's and is used while the request
//          is written; what a reply is read into stays valid as long as the command.
class RemoteCommand {
 public:
  virtual ~RemoteCommand() = default;

  // Writes the request whole and flushes. The stream's state tells of failures.
  virtual void SendRequest(std::ostream& os) = 0;

  // Whether a line that begins with the word begins the reply, or the next part of it.
  virtual bool Accepts(const std::string& word) { return word == _responseKeyword; }

  // Reads what follows the first line of the reply, or of a part. Returns the operation's outcome.
  virtual bool HandleResponse(std::istream& is);

  // Whether another part of the reply is still to come. Notices may stand in between.
  virtual bool AwaitsMore() const { return false; }

  // The first word of the reply; empty when there is none.
  std::string _responseKeyword;

  // Whether there are servers that do not know the request: they are asked for their features first.
  bool _isLater = false;

  // What the reply is read into, where the command may outlive the call that made it.
  std::shared_ptr<void> _keepAlive;
};

}  // namespace tavix::settings::client
