#include "programs/web/access/Tokens.h"

#include <algorithm>
#include <sstream>

#include "programs/web/access/PrivateFile.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

constexpr size_t kDigits = 64;  // of 256 bits

bool IsSecret(const std::string& text) {
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

Tokens Tokens::Parse(const std::string& text, const std::string& source) {
  Tokens tokens;
  size_t number = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::istringstream line(text.substr(at, end - at));
    at = end + 1;
    ++number;
    std::string name, token, right, rest;
    if (!(line >> name) || name[0] == '#') continue;
    line >> token >> right;
    if (!IsSecret(token) || (right != "read" && right != "write") || line >> rest)
      throw osa::Exception("%s:%zu: expected NAME TOKEN read|write, with 64 digits 0-9 a-f as TOKEN", source.c_str(),
                           number);
    tokens._tokens.push_back({token, right == "write" ? Right::kWrite : Right::kRead});
  }
  return tokens;
}

std::optional<Right> Tokens::Find(const std::string& token) const {
  std::optional<Right> right;
  for (const Token& known : _tokens) {
    if (AreEqualSecrets(known.text, token)) right = known.right;
  }
  return right;
}

}  // namespace tavix::web
