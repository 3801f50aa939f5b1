#pragma once

#include <string>

namespace tavix::settings::client {

// The first word of a line that a server sent; empty when there is none.
inline std::string FirstWord(const std::string& line) {
  constexpr char kBlanks[] = " \t\r\v\f";
  const size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return std::string();
  return line.substr(begin, line.find_first_of(kBlanks, begin) - begin);
}

}  // namespace tavix::settings::client
