#include "programs/cli/commands/ParserWords.h"

#include <cstdlib>

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

// Whether the text without its last characters is a number; nothing for them to be the unit of otherwise.
bool EndsWithUnit(const std::string& text, const std::string& unit, double& number) {
  if (text.size() <= unit.size() || text.compare(text.size() - unit.size(), unit.size(), unit) != 0) return false;
  const std::string digits = text.substr(0, text.size() - unit.size());
  char* end = nullptr;
  number = std::strtod(digits.c_str(), &end);
  return IsDigit(digits.front()) && *end == '\0';
}

}  // namespace

std::string MarkWord(const std::string& word) {
  if (NeedsMark(word)) return MarkAnyWord(word);
  const size_t equals = word.find('=');
  if (word.rfind("--", 0) != 0 || equals == std::string::npos || !NeedsMark(word.substr(equals + 1))) return word;
  return word.substr(0, equals + 1) + MarkAnyWord(word.substr(equals + 1));
}

std::string MarkAnyWord(const std::string& word) {
  return kWordMark + word;
}

std::string UnmarkWord(const std::string& word) {
  return !word.empty() && word.front() == kWordMark ? word.substr(1) : word;
}

std::string WithoutUnit(const std::string& time) {
  double number = 0;
  if (EndsWithUnit(time, "ms", number)) return std::to_string(number / 1000);
  return EndsWithUnit(time, "s", number) ? time.substr(0, time.size() - 1) : time;
}

}  // namespace tavix::programs::cli
