#include "programs/cli/text/TextLine.h"

#include <algorithm>

#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view WithoutBlanks(std::string_view text) {
  constexpr char kBlanks[] = " \t";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

size_t FindUnescapedEquals(std::string_view text) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '=') return at;
    if (text[at] == '\\') ++at;
  }
  return std::string_view::npos;
}

}  // namespace

bool TextLine::Next() {
  if (_rest.empty()) return false;
  ++_number;
  const size_t feed = _rest.find('\n');
  _text = _rest.substr(0, feed);
  _rest.remove_prefix(std::min(_text.size() + 1, _rest.size()));
  std::string_view content = _text;
  if (_number == 0 && content.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    content.remove_prefix(kByteOrderMark.size());
  if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
  Judge(WithoutBlanks(content));
  return true;
}

void TextLine::Judge(std::string_view content) {
  _kind = Kind::kOther;
  if (content.empty() || content.front() == '#' || content.front() == ';') return;
  _kind = Kind::kWrong;
  if (content.front() == '[') {
    if (content.back() != ']') return;
    _kind = Kind::kHeader;
    _hasGroup = true;
    _group = Unspell(content.substr(1, content.size() - 2));
    return;
  }
  const size_t equals = FindUnescapedEquals(content);
  if (!_hasGroup || equals == std::string_view::npos) return;
  _kind = Kind::kSetting;
  _key = WithoutBlanks(content.substr(0, equals));
  _value = WithoutBlanks(content.substr(equals + 1));
}

std::string TextLine::ReadKey() const {
  return Unspell(_key);
}

std::string TextLine::ReadValue() const {
  return Unspell(_value);
}

}  // namespace tavix::programs::cli
