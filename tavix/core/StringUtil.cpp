#include "tavix/core/StringUtil.h"

#include <algorithm>
#include <charconv>

namespace tavix::core {

namespace {

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view WithoutBlanks(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

}  // namespace

// When a byte does not match, only the last '*' needs to take one more: what stands before it has matched as early in
// the text as it can.
bool StringUtil::MatchesPattern(std::string_view pattern, std::string_view text) {
  size_t p = 0;
  size_t t = 0;
  size_t afterStar = std::string_view::npos;  // in the pattern
  size_t resume = 0;                          // in the text, where the last '*' ends
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      afterStar = ++p;
      if (p == pattern.size()) return true;
      resume = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p;
      ++t;
    } else if (afterStar != std::string_view::npos) {
      p = afterStar;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool StringUtil::StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool StringUtil::EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerCase(x) == LowerCase(y); });
}

void StringUtil::Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                       unsigned int maxParts) {
  size_t begin = 0;
  for (unsigned int parts = 1; parts != maxParts; ++parts) {
    const size_t end = text.find_first_of(delimiters, begin);
    if (end == std::string::npos) break;
    out.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  out.push_back(text.substr(begin));
}

bool StringUtil::TryParse(const std::string& text, int& value) {
  std::string_view digits = WithoutBlanks(text);
  if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') digits.remove_prefix(1);
  int parsed = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, parsed);
  if (error != std::errc() || stop != end) return false;
  value = parsed;
  return true;
}

}  // namespace tavix::core
