#include "programs/server/persistence/Checksum.h"

#include <array>
#include <cstddef>

namespace tavix::daemon {

namespace {

constexpr size_t kSliceBytes = 8;
constexpr uint32_t kPolynomial = 0xEDB88320;  // of the standard, the lowest bit first

// Entry b of table i: what a byte b gives that i more bytes follow.
using Tables = std::array<std::array<uint32_t, 256>, kSliceBytes>;

constexpr Tables MakeTables() {
  Tables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? kPolynomial : 0);
    tables[0][byte] = value;
  }
  for (size_t i = 1; i < kSliceBytes; ++i) {
    for (size_t byte = 0; byte < 256; ++byte) {
      const uint32_t before = tables[i - 1][byte];
      tables[i][byte] = (before >> 8) ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

// Four bytes as a number, the lowest first on every processor; compilers make one load of it.
uint32_t Load(const unsigned char* bytes) {
  return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

// M. E. Kounavis, F. L. Berry: A Systematic Approach to Building High Performance Software-based CRC Generators, 2005.
uint32_t AddSlice(const unsigned char* bytes, uint32_t value) {
  const uint32_t low = value ^ Load(bytes);
  const uint32_t high = Load(bytes + 4);
  return kTables[7][low & 0xFF] ^ kTables[6][(low >> 8) & 0xFF] ^ kTables[5][(low >> 16) & 0xFF] ^
         kTables[4][low >> 24] ^ kTables[3][high & 0xFF] ^ kTables[2][(high >> 8) & 0xFF] ^
         kTables[1][(high >> 16) & 0xFF] ^ kTables[0][high >> 24];
}

}  // namespace

uint32_t Checksum(std::string_view bytes, uint32_t start) {
  const auto* next = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t left = bytes.size();
  uint32_t value = ~start;
  for (; left >= kSliceBytes; left -= kSliceBytes, next += kSliceBytes) value = AddSlice(next, value);
  for (; left > 0; --left, ++next) value = (value >> 8) ^ kTables[0][(value ^ *next) & 0xFF];
  return ~value;
}

}  // namespace tavix::daemon
