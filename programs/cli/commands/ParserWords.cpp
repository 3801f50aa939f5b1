#include "programs/cli/commands/ParserWords.h"

namespace tavix::programs::cli {

namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool NeedsMark(const std::string& word) {
  if (word.empty()) return true;
  if (word[0] == '-') return word.size() > 1 && (IsDigit(word[1]) || (word[1] == '.' && word.size() > 2));
  return std::string("[{%").find(word[0]) != std::string::npos || word[0] == kWordMark;
}

}  // namespace

std::string MarkWord(const std::string& word) {
  if (NeedsMark(word)) return kWordMark + word;
  const size_t equals = word.find('=');
  if (word.rfind("--", 0) != 0 || equals == std::string::npos || !NeedsMark(word.substr(equals + 1))) return word;
  return word.substr(0, equals + 1) + kWordMark + word.substr(equals + 1);
}

std::string UnmarkWord(const std::string& word) {
  return !word.empty() && word.front() == kWordMark ? word.substr(1) : word;
}

}  // namespace tavix::programs::cli
