#include "programs/web/http/Inflate.h"

#define ZLIB_CONST
#include <zlib.h>

#include <new>

namespace tavix::web {

namespace {

constexpr int kWithoutHead = -MAX_WBITS;  // as zlib is told that neither a head nor a tail is there

}  // namespace

std::string Inflate(std::string_view bytes, size_t maxBytes) {
  std::string text(maxBytes, '\0');
  z_stream stream{};
  if (inflateInit2(&stream, kWithoutHead) != Z_OK) throw std::bad_alloc();
  stream.next_in = reinterpret_cast<const unsigned char*>(bytes.data());
  stream.avail_in = static_cast<unsigned int>(bytes.size());
  stream.next_out = reinterpret_cast<unsigned char*>(text.data());
  stream.avail_out = static_cast<unsigned int>(maxBytes);
  inflate(&stream, Z_FINISH);  // what it can't make sense of it leaves
  text.resize(maxBytes - stream.avail_out);
  inflateEnd(&stream);
  return text;
}

}  // namespace tavix::web
