#pragma once

#include <cstdint>
#include <random>

namespace tavix::bridge {

// Another one each time, and for each device.
inline std::uint64_t MakeRandomNumber() {
  std::random_device source;
  return std::uint64_t{source()} << 32U | source();
}

}  // namespace tavix::bridge
