#pragma once

#include <zlib.h>

#include <cstdint>
#include <string_view>

namespace tavix::daemon {

// The CRC-32 of ISO 3309, which zlib and gzip use, of "bytes" behind those that gave "start".
inline uint32_t Checksum(std::string_view bytes, uint32_t start = 0) {
  return static_cast<uint32_t>(crc32_z(start, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

}  // namespace tavix::daemon
