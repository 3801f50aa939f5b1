#pragma once

#include <set>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeTicket.h"

namespace tavix::settings::server {

// Requests of one line that a host adds to those of the protocol. A client asks `info features` before it sends one: to
// a host without them the line is an unknown command.
//
// Threads: called on the thread of any handler, with none of the store's locks and no output mutex held.
// Errors:  RefusedChange, by a change that a store refuses, is answered as kRefused. What else it throws ends the
//          connection.
class TAVIX_EXPORT IExtraCommands {
 public:
  virtual ~IExtraCommands() = default;

  struct Command {
    bool isLong = false;    // may take longer than a millisecond: a handler of HandleNextIfShort leaves it to others
    bool isChange = false;  // changes the store: it uses up the client's note

    // Only its client is sent something for it: it may be skipped once that has left.
    bool isForClientOnly = false;

    // Goes with the client's next change, as ChangeOrigin::trial has the rest of the line. It is not carried out, and
    // the client is answered nothing.
    bool isForNextChange = false;
  };

  // A line of a client.
  struct Call {
    std::string_view word;
    std::string_view args;  // the rest of the line
    ChangeOrigin origin;    // without a note when the command changes nothing
  };

  // What became of it.
  struct Answer {
    enum class Kind {
      kNone,     // the client is sent nothing
      kData,     // `data`, the payload in the connection's form, `.`
      kRefused,  // `refused` and the reason on a line of 512 bytes at most
    };

    Kind kind = Kind::kNone;
    core::IniFile data;
    // Of kRefused, and of kNone for `info refused` alone: why nothing was done. Of kNone it begins with a word and
    // ": "; of kRefused the request's own word is put in front for `info refused`.
    std::string reason = {};
    ChangeTicket ticket = 0;  // of what was changed: further output waits for it
  };

  // Null: the word is none of them. It returns at once. The words of the protocol are not asked for.
  virtual const Command* Find(std::string_view word) const = 0;

  // Carries a whole line out.
  virtual Answer CarryOut(const Call& call) = 0;

  // Adds a line for each feature that is on, for `info features`.
  virtual void AddFeatures(std::set<std::string>& features) const = 0;
};

}  // namespace tavix::settings::server
