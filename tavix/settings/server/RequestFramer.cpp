#include "tavix/settings/server/RequestFramer.h"

#include <cstring>

#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/server/CommandTable.h"
#include "tavix/settings/server/Words.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

size_t RequestFramer::FindEnd(std::string_view received) {
  bool isWhole = false;
  while (!isWhole && _looked < received.size()) {
    if (_part == Part::kPhpArray || _part == Part::kBetween) {
      isWhole = TakePhpArray(received);
      continue;
    }
    const void* found = std::memchr(received.data() + _looked, '\n', received.size() - _looked);
    if (!found) {
      _looked = received.size();
      break;
    }
    const auto end = static_cast<size_t>(static_cast<const char*>(found) - received.data());
    const std::string_view line = received.substr(_lineBegin, end - _lineBegin);
    _looked = _lineBegin = end + 1;
    isWhole = _part == Part::kCommand ? TakeCommand(line) : TakeLine(line);
  }
  if (!isWhole) return 0;
  const size_t length = _looked;
  _part = Part::kCommand;
  _looked = _lineBegin = 0;
  return length;
}

size_t RequestFramer::GetUnfinishedLine(std::string_view received) const {
  return _part == Part::kPhpArray || _part == Part::kBetween ? 0 : received.size() - _lineBegin;
}

// These return whether the request is whole.
bool RequestFramer::TakeCommand(std::string_view line) {
  const CommandTable::Command* const command = CommandTable::Find(TakeWord(line));
  _isCommand = command != nullptr;
  if (!command) return true;
  if (command->effect == CommandTable::Effect::kSetsSerialization) FollowSerialization(TakeWord(line));
  _partsLeft = command->parts;
  return BeginNextPart();
}

// Any other name changes nothing, for the handler neither.
void RequestFramer::FollowSerialization(std::string_view name) {
  if (name == "phparray") _isPhpArray = true;
  if (name == "ini") _isPhpArray = false;
}

bool RequestFramer::TakeLine(std::string_view line) {
  return line == protocol::kTerminator && BeginNextPart();
}

// White space and one dot may stand between two payloads.
bool RequestFramer::TakePhpArray(std::string_view received) {
  if (_part == Part::kBetween) {
    const char byte = received[_looked];
    if (IsBlank(byte) || (byte == '.' && !_hasDot)) {
      _hasDot = _hasDot || byte == '.';
      ++_looked;
      return false;
    }
    _part = Part::kPhpArray;
  }
  _looked += _scanner.Take(received.substr(_looked));
  return _scanner.IsMalformed() || (_scanner.IsDone() && BeginNextPart());
}

bool RequestFramer::BeginNextPart() {
  const char next = *_partsLeft;
  if (next == '\0') return true;
  ++_partsLeft;
  if (next == 'l' || !_isPhpArray) {
    _part = Part::kLines;
  } else {
    _part = _part == Part::kPhpArray ? Part::kBetween : Part::kPhpArray;
    _hasDot = false;
    _scanner = PhpArrayScanner();
  }
  return false;
}

}  // namespace tavix::settings::server
