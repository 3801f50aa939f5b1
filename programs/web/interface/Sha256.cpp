#include "programs/web/interface/Sha256.h"

#include <algorithm>

namespace tavix::web {

namespace {

constexpr uint32_t kConstants[64] = {
    0x428a2f98U, 0x71374491U, 0xb5c0fbcfU, 0xe9b5dba5U, 0x3956c25bU, 0x59f111f1U, 0x923f82a4U, 0xab1c5ed5U,
    0xd807aa98U, 0x12835b01U, 0x243185beU, 0x550c7dc3U, 0x72be5d74U, 0x80deb1feU, 0x9bdc06a7U, 0xc19bf174U,
    0xe49b69c1U, 0xefbe4786U, 0x0fc19dc6U, 0x240ca1ccU, 0x2de92c6fU, 0x4a7484aaU, 0x5cb0a9dcU, 0x76f988daU,
    0x983e5152U, 0xa831c66dU, 0xb00327c8U, 0xbf597fc7U, 0xc6e00bf3U, 0xd5a79147U, 0x06ca6351U, 0x14292967U,
    0x27b70a85U, 0x2e1b2138U, 0x4d2c6dfcU, 0x53380d13U, 0x650a7354U, 0x766a0abbU, 0x81c2c92eU, 0x92722c85U,
    0xa2bfe8a1U, 0xa81a664bU, 0xc24b8b70U, 0xc76c51a3U, 0xd192e819U, 0xd6990624U, 0xf40e3585U, 0x106aa070U,
    0x19a4c116U, 0x1e376c08U, 0x2748774cU, 0x34b0bcb5U, 0x391c0cb3U, 0x4ed8aa4aU, 0x5b9cca4fU, 0x682e6ff3U,
    0x748f82eeU, 0x78a5636fU, 0x84c87814U, 0x8cc70208U, 0x90befffaU, 0xa4506cebU, 0xbef9a3f7U, 0xc67178f2U};

uint32_t Rotate(uint32_t value, unsigned int count) {
  return value >> count | value << (32 - count);
}

}  // namespace

void Sha256::Add(std::string_view bytes) {
  _count += bytes.size();
  while (!bytes.empty()) {
    const size_t size = std::min(bytes.size(), _block.size() - _held);
    std::copy_n(bytes.begin(), size, _block.begin() + static_cast<std::ptrdiff_t>(_held));
    bytes.remove_prefix(size);
    _held += size;
    if (_held == _block.size()) AddBlock();
  }
}

void Sha256::AddBlock() {
  uint32_t words[64];
  for (size_t i = 0; i < 16; ++i)
    words[i] = static_cast<uint32_t>(_block[4 * i]) << 24U | static_cast<uint32_t>(_block[4 * i + 1]) << 16U |
               static_cast<uint32_t>(_block[4 * i + 2]) << 8U | static_cast<uint32_t>(_block[4 * i + 3]);
  for (size_t i = 16; i < 64; ++i) {
    const uint32_t low = Rotate(words[i - 15], 7) ^ Rotate(words[i - 15], 18) ^ words[i - 15] >> 3U;
    const uint32_t high = Rotate(words[i - 2], 17) ^ Rotate(words[i - 2], 19) ^ words[i - 2] >> 10U;
    words[i] = words[i - 16] + low + words[i - 7] + high;
  }
  auto [a, b, c, d, e, f, g, h] = _state;
  for (size_t i = 0; i < 64; ++i) {
    const uint32_t high = Rotate(e, 6) ^ Rotate(e, 11) ^ Rotate(e, 25);
    const uint32_t first = h + high + ((e & f) ^ (~e & g)) + kConstants[i] + words[i];
    const uint32_t low = Rotate(a, 2) ^ Rotate(a, 13) ^ Rotate(a, 22);
    const uint32_t second = low + ((a & b) ^ (a & c) ^ (b & c));
    h = g, g = f, f = e, e = d + first, d = c, c = b, b = a, a = first + second;
  }
  const std::array<uint32_t, 8> added{a, b, c, d, e, f, g, h};
  for (size_t i = 0; i < 8; ++i) _state[i] += added[i];
  _held = 0;
}

std::array<unsigned char, 32> Sha256::Finish() {
  const uint64_t bits = _count * 8;
  Add({"\x80", 1});
  while (_held != 56) Add({"\0", 1});
  char length[8];
  for (size_t i = 0; i < 8; ++i) length[i] = static_cast<char>(bits >> (56 - 8 * i) & 0xFFU);
  Add({length, sizeof length});
  std::array<unsigned char, 32> digest{};
  for (size_t i = 0; i < digest.size(); ++i)
    digest[i] = static_cast<unsigned char>(_state[i / 4] >> (24 - 8 * (i % 4)) & 0xFFU);
  return digest;
}

}  // namespace tavix::web
