#pragma once

#include <cstddef>
#include <string_view>

namespace tavix::settings::server {

class ClientHandler;

// The commands of the protocol, each in one line of the source: all that handler, framer, dispatcher and statistics
// know of it. A new command is a new line, in ascending order of words.
//
// Threads: any; nothing changes.
class CommandTable {
 public:
  // args: the rest of the command's line, behind its word.
  using Handler = void (ClientHandler::*)(std::string_view args);

  // When a request may take longer than a millisecond, whatever the store holds. What a list of names or patterns finds
  // in the store shows only when the request is tried.
  enum class Duration {
    kBySize,          // it is large: reading it, and changing what it names, takes long
    kBySubscription,  // the same, of a smaller size: each name and pattern is filed
    kByPattern,       // it is large, or holds a pattern: the whole store is searched
    kIfSubscribed,    // its line asks for the subscriptions of all clients
    kLong,            // always: it shows the whole store, or reads the files of defaults
  };

  // What a request means for others than its client, and for those behind it.
  enum class Effect {
    kNone,               // is carried out even when its client has left
    kClientOnly,         // only its client is sent something for it: it may be skipped once that has left
    kSetsSerialization,  // its line names the form of all payloads that follow
  };

  struct Command {
    const char* word;
    const char* parts;  // behind the line: 'l' a list, 'p' a payload
    Duration duration;
    Effect effect;
    Handler handler;
  };

  static const Command* begin();
  static const Command* end();

  // Null: the word is no command.
  static const Command* Find(std::string_view word);

  // Whether a request, which is whole, may take longer than a millisecond.
  static bool IsLong(std::string_view request);

  // Whether the request's command is for its client only.
  static bool IsForClientOnly(std::string_view request);

 private:
  static const Command kCommands[];
};

}  // namespace tavix::settings::server
