#include "programs/server/connections/OpeningGuard.h"

#include <strings.h>

#include <algorithm>
#include <vector>

namespace tavix::daemon {

namespace {

using Words = std::vector<std::string_view>;

constexpr std::string_view kBlanks = " \t\r\n\v\f";
constexpr size_t kMaxWords = 64;  // an opening has few; of longer lines the last word counts as well

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

bool IsUpper(char byte) {
  return byte >= 'A' && byte <= 'Z';
}

bool IsLetter(char byte) {
  return IsUpper(byte) || (byte >= 'a' && byte <= 'z');
}

// As RFC 9110 has it.
bool IsTokenByte(char byte) {
  return IsLetter(byte) || IsDigit(byte) || std::string_view("!#$%&'*+-.^_`|~").find(byte) != std::string_view::npos;
}

template <class Test>
bool IsAll(std::string_view text, Test test) {
  return !text.empty() && std::all_of(text.begin(), text.end(), test);
}

bool IsSame(std::string_view word, std::string_view other) {
  return word.size() == other.size() && strncasecmp(word.data(), other.data(), word.size()) == 0;
}

// The first words of the first line, and its last one.
Words WordsOf(std::string_view request) {
  Words words;
  std::string_view line = request.substr(0, request.find('\n'));
  for (size_t begin; (begin = line.find_first_not_of(kBlanks)) != std::string_view::npos;) {
    const size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
    if (words.size() == kMaxWords) words.pop_back();
    words.push_back(line.substr(begin, end - begin));
    line.remove_prefix(end);
  }
  return words;
}

// "NAME/digits.digits".
bool IsProtocolVersion(std::string_view word) {
  const size_t slash = word.find('/');
  const size_t dot = word.find('.', std::min(slash, word.size()));
  return dot != std::string_view::npos && IsAll(word.substr(0, slash), IsTokenByte) &&
         IsAll(word.substr(slash + 1, dot - slash - 1), IsDigit) && IsAll(word.substr(dot + 1), IsDigit);
}

bool IsTarget(std::string_view word) {
  return word.front() == '/' || word.find("://") != std::string_view::npos;
}

// "METHOD target HTTP/...". A method may be any word, a command of ours, too.
bool IsHttpRequest(const Words& words) {
  return words.size() >= 3 && IsSame(words.back().substr(0, 5), "HTTP/");
}

// "METHOD target NAME/digits.digits".
bool IsVersionedRequest(const Words& words) {
  return words.size() == 3 && IsAll(words[0], IsTokenByte) && IsProtocolVersion(words[2]);
}

// "METHOD target", as the first version of HTTP had it.
bool IsShortRequest(const Words& words) {
  return words.size() == 2 && IsAll(words[0], IsUpper) && IsTarget(words[1]);
}

bool IsHeader(const Words& words) {
  return !words.empty() && (IsSame(words[0], "Host:") || IsSame(words[0], "Content-Length:"));
}

}  // namespace

bool OpeningGuard::BeginsLikeTls(std::string_view received) {
  return received.size() >= 2 && received[0] == '\x16' && received[1] == '\x03';
}

bool OpeningGuard::TakeOpening(std::string_view request, bool isCommand) {
  _hasRequest = true;
  _hasCommand = isCommand;
  const Words words = WordsOf(request);
  if (IsHttpRequest(words)) return true;
  return !isCommand && (IsVersionedRequest(words) || IsShortRequest(words) || IsHeader(words));
}

}  // namespace tavix::daemon
