#include "programs/server/persistence/Checksum.h"

#include <gtest/gtest.h>

#include <string>

namespace tavix::test {

namespace {

// As the standard has it, one bit after the other.
uint32_t ChecksumByBits(const std::string& bytes) {
  uint32_t value = 0xFFFFFFFF;
  for (const char byte : bytes) {
    value ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320 : 0);
  }
  return ~value;
}

std::string AllBytes(size_t count) {
  std::string bytes;
  for (size_t i = 0; i < count; ++i) bytes += static_cast<char>(i * 37 % 256);
  return bytes;
}

}  // namespace

TEST(Checksum, IsThatOfTheStandardsExample) {
  EXPECT_EQ(daemon::Checksum("123456789"), 0xCBF43926u);
}

TEST(Checksum, OfNothingIsTheStart) {
  EXPECT_EQ(daemon::Checksum(""), 0u);
  EXPECT_EQ(daemon::Checksum("", 0x12345678), 0x12345678u);
}

TEST(Checksum, IsThatOfTheStandardForEveryLength) {
  for (size_t length = 0; length <= 600; ++length)
    EXPECT_EQ(daemon::Checksum(AllBytes(length)), ChecksumByBits(AllBytes(length))) << length;
}

TEST(Checksum, OfPartsIsThatOfTheWhole) {
  const std::string whole = AllBytes(300);
  for (size_t cut = 0; cut <= whole.size(); ++cut) {
    const uint32_t first = daemon::Checksum(whole.substr(0, cut));
    EXPECT_EQ(daemon::Checksum(whole.substr(cut), first), daemon::Checksum(whole)) << cut;
  }
}

}  // namespace tavix::test
