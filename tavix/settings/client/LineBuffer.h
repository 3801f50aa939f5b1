#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace tavix::settings::client {

// Bytes that were received and not taken yet, in lines.
//
// Lines that were taken free their room: with bytes that are added in parts, the buffer takes little more than what was
// not taken, and one that was large is given back when it is empty.
//
// Threads: one.
// Owns:    all of it. A plain value.
class LineBuffer {
 public:
  // Room for more bytes, behind those that are there. It is good until the next call of anything else.
  char* MakeRoom(size_t bytes);

  // That many bytes were written to the room.
  void AddWritten(size_t bytes) { _end += bytes; }

  // The bytes of the next line without its line feed; of all that is there when the line has no end yet.
  size_t CountLineBytes();

  // The next line, without its line feed, if its end is there.
  std::optional<std::string> TakeLine();

  // Makes the line that was taken last the next one again. Not after MakeRoom.
  void PutBack(const std::string& line);

  // What was not taken.
  size_t GetBytes() const { return _end - _start; }

  // What the buffer takes.
  size_t GetCapacity() const { return _text.size(); }

 private:
  size_t FindLineEnd();

  // What is there lies from _start to _end; room and what was taken lie around it.
  std::string _text;
  size_t _start = 0;
  size_t _end = 0;
  size_t _scanned = 0;  // bytes from _start on that hold no line feed
};

}  // namespace tavix::settings::client
