#include "tavix/core/DelimitedStreamBuf.h"

namespace tavix::stl {

DelimitedStreamBuf::int_type DelimitedStreamBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  setg(nullptr, nullptr, nullptr);
  if (_ended) return traits_type::eof();
  if (!std::getline(*_source, _line) || _line == _delimiter) {
    _ended = true;
    return traits_type::eof();
  }
  if (!_source->eof()) _line.push_back('\n');
  if (_line.empty()) return traits_type::eof();
  setg(&_line[0], &_line[0], &_line[0] + _line.size());
  return traits_type::to_int_type(*gptr());
}

}  // namespace tavix::stl
