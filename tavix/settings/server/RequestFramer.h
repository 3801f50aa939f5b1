#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tavix/osa/Export.h"
#include "tavix/settings/server/PhpArrayScanner.h"

namespace tavix::settings::server {

// Finds where a connection's next request ends, from bytes that arrive in pieces of any size, so that a ClientHandler
// can be given whole requests and never waits for the rest of one. It knows which lists and payloads follow each
// command, and follows the connection's serialization. A line that is no command is a request of its own, as the
// handler takes it.
//
// Threads: the connection's loop.
// Cost:    each byte is looked at once, however small the pieces are.
class TAVIX_DAEMON_EXPORT RequestFramer {
 public:
  // received: everything from the beginning of the request that is not finished yet; each call shows the same bytes
  // with more behind them. Returns the length of the request once it is whole, and starts over behind it; else 0. A
  // payload that can't be parsed ends where that shows: the handler then says why.
  size_t FindEnd(std::string_view received);

  // Whether the request that FindEnd found last begins with a command. If not, it is one line.
  bool IsCommand() const { return _isCommand; }

  // How long the line is that is not finished yet, in bytes; 0 inside a phparray payload.
  size_t GetUnfinishedLine(std::string_view received) const;

 private:
  // What of a request is read. A request begins with its command's line; CommandTable has what follows:
  //
  //   a list, or a payload in "ini"   kLines, up to its terminator's line
  //   a payload in "phparray"         kPhpArray, up to its last brace; behind one payload, and before the next of the
  //                                   same request, kBetween
  //
  // Behind the last of these the request is whole, and kCommand is next.
  enum class Part { kCommand, kLines, kPhpArray, kBetween };

  bool TakeCommand(std::string_view line);
  void FollowSerialization(std::string_view name);
  bool TakeLine(std::string_view line);
  bool TakePhpArray(std::string_view received);
  bool BeginNextPart();

  Part _part = Part::kCommand;
  const char* _partsLeft = "";  // 'l' a list, 'p' a payload
  bool _isCommand = false;
  bool _isPhpArray = false;  // the connection's serialization
  bool _hasDot = false;      // there was a dot between two payloads, which may have one
  PhpArrayScanner _scanner;
  size_t _lineBegin = 0;
  size_t _looked = 0;  // so far, of what was received
};

}  // namespace tavix::settings::server
