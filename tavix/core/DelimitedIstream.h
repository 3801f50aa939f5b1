#pragma once

#include <istream>

#include "tavix/core/DelimitedStreamBuf.h"

namespace tavix::stl {

// An input stream over a DelimitedStreamBuf of its own: lists and payloads are read through it.
//
// Threads: one at a time.
class DelimitedIstream : public std::istream {
 public:
  // source: borrowed; delimiter: what ends the view when it stands alone on a line.
  explicit DelimitedIstream(std::istream* source, const char* delimiter = ".")
      : std::istream(nullptr), _buffer(source, delimiter) {
    init(&_buffer);
  }

 private:
  DelimitedStreamBuf _buffer;
};

}  // namespace tavix::stl
