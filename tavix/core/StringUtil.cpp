#include "tavix/core/StringUtil.h"

#include <algorithm>
#include <charconv>
#include <cstring>

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

// As text.find(piece), which takes as many steps as the product of their sizes when they are chosen so.
size_t FindFirst(std::string_view text, std::string_view piece) {
  if (piece.empty()) return 0;
  if (text.size() < piece.size()) return std::string_view::npos;
  if (text[0] == piece[0] && text.substr(0, piece.size()) == piece) return 0;
  if (piece.size() == 1) return text.find(piece[0]);
  const void* found = memmem(text.data(), text.size(), piece.data(), piece.size());
  return found ? static_cast<size_t>(static_cast<const char*>(found) - text.data()) : std::string_view::npos;
}

}  // namespace

// Every piece between two stars is taken where it occurs first: that leaves the most to those behind it.
bool StringUtil::MatchesPattern(std::string_view pattern, std::string_view text) {
  size_t piece = pattern.find('*');
  if (piece == std::string_view::npos) return pattern == text;
  if (!StartsWith(text, pattern.substr(0, piece))) return false;
  text.remove_prefix(piece);
  pattern.remove_prefix(piece + 1);
  while ((piece = pattern.find('*')) != std::string_view::npos) {
    const size_t at = FindFirst(text, pattern.substr(0, piece));
    if (at == std::string_view::npos) return false;
    text.remove_prefix(at + piece);
    pattern.remove_prefix(piece + 1);
  }
  return text.size() >= pattern.size() && text.substr(text.size() - pattern.size()) == pattern;
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
