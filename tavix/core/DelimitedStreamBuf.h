#pragma once

#include <istream>
#include <streambuf>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::stl {

// A view of a stream that ends at the first line which holds only the delimiter. It takes whole lines from the source
// and never reads past the delimiter's line, so that the source then stands right behind it. A source that ends first
// ends the view there; a last line without its line feed still counts. A delimiter line is exact: ".\r" is a line of
// its own.
//
// Threads: one at a time.
class TAVIX_EXPORT DelimitedStreamBuf : public std::streambuf {
 public:
  // source: borrowed, outlives the view, is not closed by it. delimiter: copied.
  DelimitedStreamBuf(std::istream* source, const char* delimiter) : _source(source), _delimiter(delimiter) {}

 protected:
  int_type underflow() override;

 private:
  std::istream* _source;
  const std::string _delimiter;
  std::string _line;
  bool _ended = false;
};

}  // namespace tavix::stl
