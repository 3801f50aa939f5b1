#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tavix::web {

enum class Right { kRead, kWrite };

// The tokens of a file: lines NAME TOKEN read|write; empty lines and those that begin with '#' don't count.
//
// Threads: any; they do not change.
class Tokens {
 public:
  // Throws osa::Exception with the line that is wrong; source: what it calls the text.
  static Tokens Parse(const std::string& text, const std::string& source);

  // What the token allows; nothing when there is no such token. The time does not tell which one is like it.
  std::optional<Right> Find(const std::string& token) const;

  bool IsEmpty() const { return _tokens.empty(); }

 private:
  struct Token {
    std::string text;
    Right right;
  };

  std::vector<Token> _tokens;
};

}  // namespace tavix::web
