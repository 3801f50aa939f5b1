#pragma once

#include <string_view>

namespace tavix::settings::server {

// White space as the classic locale has it.
inline bool IsBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

// Takes the first word off the line, as ">>" finds it; empty when there is none.
inline std::string_view TakeWord(std::string_view& line) {
  size_t begin = 0;
  while (begin < line.size() && IsBlank(line[begin])) ++begin;
  size_t end = begin;
  while (end < line.size() && !IsBlank(line[end])) ++end;
  const std::string_view word = line.substr(begin, end - begin);
  line.remove_prefix(end);
  return word;
}

inline std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace tavix::settings::server
