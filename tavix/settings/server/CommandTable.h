#pragma once

#include <cstddef>
#include <string_view>

namespace tavix::settings::server {

class ClientHandler;

// The commands of the protocol, each in one line of the source: its word, what follows its line, and its handler.
//
// Threads: any; nothing changes.
class CommandTable {
 public:
  // args: the rest of the command's line, behind its word.
  using Handler = void (ClientHandler::*)(std::string_view args);

  struct Command {
    const char* word;
    const char* parts;  // 'l' a list, 'p' a payload
    Handler handler;
  };

  static constexpr size_t kCount = 10;

  // In ascending order of words.
  static const Command* begin() { return kCommands; }
  static const Command* end() { return kCommands + kCount; }

  // Null: the word is no command.
  static const Command* Find(std::string_view word);

 private:
  static const Command kCommands[kCount];
};

}  // namespace tavix::settings::server
