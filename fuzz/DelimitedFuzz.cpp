// A view of a stream yields what stands before the first line that is "." alone, and leaves what stands behind it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>

#include "tavix/core/DelimitedIstream.h"

namespace {

// Where the terminator's line begins; npos without one.
size_t FindTerminator(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    if (text.substr(at, end == std::string::npos ? end : end - at) == ".") return at;
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return std::string::npos;
}

std::string ReadRest(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t terminator = FindTerminator(text);
  std::istringstream source(text);
  tavix::stl::DelimitedIstream view(&source);
  if (ReadRest(view) != text.substr(0, terminator)) std::abort();
  const std::string rest =
      terminator == std::string::npos || terminator + 2 > text.size() ? "" : text.substr(terminator + 2);
  if (ReadRest(source) != rest) std::abort();
  return 0;
}
