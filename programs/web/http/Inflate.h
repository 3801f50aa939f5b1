#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix::web {

// What was compressed as deflate does (RFC 1951), as far as its bytes make sense and no more than "maxBytes" of it.
// Throws std::bad_alloc.
std::string Inflate(std::string_view bytes, size_t maxBytes);

}  // namespace tavix::web
