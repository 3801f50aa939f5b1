#pragma once

#include <cstdint>
#include <string_view>

namespace tavix::daemon {

// The CRC-32 of ISO 3309, which gzip uses, of "bytes" behind those that gave "start".
uint32_t Checksum(std::string_view bytes, uint32_t start = 0);

}  // namespace tavix::daemon
