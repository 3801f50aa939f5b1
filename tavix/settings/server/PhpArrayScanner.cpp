#include "tavix/settings/server/PhpArrayScanner.h"

#include <algorithm>
#include <limits>

namespace tavix::settings::server {

namespace {

constexpr char kHeader[] = "a:#:{";
constexpr char kString[] = "s:#:\"$\";";
constexpr char kEnd[] = "}";

bool IsSpace(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

}  // namespace

size_t PhpArrayScanner::Take(std::string_view bytes) {
  size_t taken = 0;
  while (taken < bytes.size() && !_done) {
    if (*_expected == '$' && _rawLeft > 0) {
      const uint64_t raw = std::min<uint64_t>(_rawLeft, bytes.size() - taken);
      _rawLeft -= raw;
      taken += static_cast<size_t>(raw);
    } else if (!TakeByte(bytes[taken++])) {
      _done = _malformed = true;  // the serializer that reads it reports why
    }
  }
  return taken;
}

// False for a byte that can't stand here.
bool PhpArrayScanner::TakeByte(char byte) {
  if (*_expected == '$') ++_expected;
  if (*_expected == '#') {
    if (byte >= '0' && byte <= '9') return TakeDigit(byte);
    if (!_hasDigits) return TakeBeforeDigits(byte);
    if (_sign == '-') _number = 0 - static_cast<uint32_t>(_number);
    ++_expected;
    _rawLeft = _number;
  }
  if (IsSpace(byte)) return true;
  if (byte != *_expected) return false;
  ++_expected;
  if (*_expected == '\0') EndToken();
  return true;
}

// White space, and then one sign.
bool PhpArrayScanner::TakeBeforeDigits(char byte) {
  if (_sign != '\0') return false;
  if (byte == '+' || byte == '-') _sign = byte;
  return _sign != '\0' || IsSpace(byte);
}

bool PhpArrayScanner::TakeDigit(char byte) {
  _hasDigits = true;
  _number = _number * 10 + static_cast<uint64_t>(byte - '0');
  return _number <= std::numeric_limits<unsigned int>::max();
}

void PhpArrayScanner::EndToken() {
  switch (_part) {
    case Part::kOuterHeader:
      _groupsLeft = _number;
      break;
    case Part::kGroupName:
      Begin(Part::kInnerHeader);
      return;
    case Part::kInnerHeader:
      _stringsLeft = 2 * _number;
      break;
    case Part::kString:
      --_stringsLeft;
      break;
    case Part::kInnerEnd:
      --_groupsLeft;
      break;
    case Part::kOuterEnd:
      _done = true;
      return;
  }
  const bool inGroup = _part == Part::kInnerHeader || _part == Part::kString;
  if (inGroup) {
    Begin(_stringsLeft > 0 ? Part::kString : Part::kInnerEnd);
  } else {
    Begin(_groupsLeft > 0 ? Part::kGroupName : Part::kOuterEnd);
  }
}

void PhpArrayScanner::Begin(Part part) {
  _part = part;
  _hasDigits = false;
  _sign = '\0';
  _number = 0;
  const bool isHeader = part == Part::kOuterHeader || part == Part::kInnerHeader;
  const bool isEnd = part == Part::kInnerEnd || part == Part::kOuterEnd;
  _expected = isHeader ? kHeader : isEnd ? kEnd : kString;
}

}  // namespace tavix::settings::server
