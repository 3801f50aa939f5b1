#pragma once

#include <cstdint>
#include <string>

namespace tavix::bridge {

// FNV-1a of 64 bits over texts, whose ends count, with a last mix so that all bits depend on all. A plain value.
class Hash {
 public:
  void Add(const std::string& text) {
    for (const char c : text) AddByte(static_cast<unsigned char>(c));
    for (size_t size = text.size(), i = 0; i < sizeof size; ++i) AddByte(static_cast<unsigned char>(size >> 8 * i));
  }

  std::uint64_t Get() const {
    std::uint64_t mixed = _value;
    mixed ^= mixed >> 33U;
    mixed *= 0xFF51AFD7ED558CCDU;
    return mixed ^ mixed >> 33U;
  }

 private:
  void AddByte(unsigned char byte) { _value = (_value ^ byte) * 0x100000001B3U; }

  std::uint64_t _value = 0xCBF29CE484222325U;
};

}  // namespace tavix::bridge
