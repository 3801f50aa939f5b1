#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavix::web {

// SHA-256 (FIPS 180-4).
//
// Threads: one.
class Sha256 {
 public:
  void Add(std::string_view bytes);

  // The bytes' digest. Nothing may be added behind it.
  std::array<unsigned char, 32> Finish();

 private:
  void AddBlock();

  std::array<uint32_t, 8> _state{0x6a09e667U, 0xbb67ae85U, 0x3c6ef372U, 0xa54ff53aU,
                                 0x510e527fU, 0x9b05688cU, 0x1f83d9abU, 0x5be0cd19U};
  std::array<unsigned char, 64> _block{};
  size_t _held = 0;
  uint64_t _count = 0;
};

}  // namespace tavix::web
