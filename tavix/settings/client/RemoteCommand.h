#pragma once

#include <iosfwd>
#include <memory>
#include <string>

namespace tavix::settings::client {

// One operation on its way over a connection: writes the request, and reads what follows the first line of the reply.
//
// Owns: the keyword, and _keepAlive. What the derived classes point to is the caller's and is used while the request is
//       written; what a reply is read into stays valid as long as the command.
class RemoteCommand {
 public:
  virtual ~RemoteCommand() = default;

  // Writes the request whole and flushes. The stream's state tells of failures.
  virtual void SendRequest(std::ostream& os) = 0;

  // Reads the rest of a reply whose first word was _responseKeyword. Returns the operation's outcome.
  virtual bool HandleResponse(std::istream& is);

  // The first word of the reply; empty when there is none.
  std::string _responseKeyword;

  // What the reply is read into, where the command may outlive the call that made it.
  std::shared_ptr<void> _keepAlive;
};

}  // namespace tavix::settings::client
