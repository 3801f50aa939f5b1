#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tavix::settings::server {

// Finds the end of a phparray payload without building anything, from bytes that arrive in pieces of any size. It takes
// exactly what PhpArraySettingsSerializer reads: up to the last brace, or up to the first byte that does not fit.
//
// Threads: one at a time.
class PhpArrayScanner {
 public:
  // Takes the next bytes; returns how many of them belong to the payload. When they are fewer than all, or IsDone, the
  // payload has ended.
  size_t Take(std::string_view bytes);

  // Whether the payload has ended, and whether it did because a byte does not fit.
  bool IsDone() const { return _done; }
  bool IsMalformed() const { return _malformed; }

 private:
  enum class Part { kOuterHeader, kGroupName, kInnerHeader, kString, kInnerEnd, kOuterEnd };

  bool TakeByte(char byte);
  bool TakeBeforeDigits(char byte);
  bool TakeDigit(char byte);
  void EndToken();
  void Begin(Part part);

  Part _part = Part::kOuterHeader;
  const char* _expected = "a:#:{";  // what is left of the token; '#' is a number, '$' that many raw bytes
  bool _hasDigits = false;
  char _sign = '\0';  // of the number; '\0': none
  uint64_t _number = 0;
  uint64_t _rawLeft = 0;
  uint64_t _groupsLeft = 0;
  uint64_t _stringsLeft = 0;
  bool _done = false;
  bool _malformed = false;
};

}  // namespace tavix::settings::server
