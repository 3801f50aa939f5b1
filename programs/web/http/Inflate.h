#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix::web {

// What was compressed as deflate does (RFC 1951), as far as its bytes make sense and no more than "maxBytes" of it.
// Small rather than fast: it serves a few files, to clients that can't expand them.
std::string Inflate(std::string_view bytes, size_t maxBytes);

}  // namespace tavix::web
