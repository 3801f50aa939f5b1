#include "tavix/settings/client/LineBuffer.h"

#include <cstring>

namespace tavix::settings::client {

namespace {

constexpr size_t kMaxKeptBytes = size_t{1024} * 1024;  // of an empty buffer

}  // namespace

char* LineBuffer::MakeRoom(size_t bytes) {
  if (GetBytes() == 0 && _text.size() > kMaxKeptBytes) _text = std::string();
  // Moves no byte twice on average: at least as many were taken as have to be moved.
  if (_start >= GetBytes()) {
    if (GetBytes() > 0) std::memmove(_text.data(), _text.data() + _start, GetBytes());
    _end -= _start;
    _start = 0;
  }
  if (_text.size() - _end < bytes) _text.resize(_end + bytes);
  return _text.data() + _end;
}

size_t LineBuffer::FindLineEnd() {
  const char* const from = _text.data() + _start + _scanned;
  const size_t left = GetBytes() - _scanned;
  const void* const found = left > 0 ? std::memchr(from, '\n', left) : nullptr;
  _scanned = found ? static_cast<size_t>(static_cast<const char*>(found) - _text.data()) - _start : GetBytes();
  return _start + _scanned;
}

size_t LineBuffer::CountLineBytes() {
  return FindLineEnd() - _start;
}

std::optional<std::string> LineBuffer::TakeLine() {
  const size_t end = FindLineEnd();
  if (end == _end) return std::nullopt;
  std::string line = _text.substr(_start, end - _start);
  _start = end + 1;
  _scanned = 0;
  return line;
}

void LineBuffer::PutBack(const std::string& line) {
  _start -= line.size() + 1;
  _scanned = 0;
}

}  // namespace tavix::settings::client
