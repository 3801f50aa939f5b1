#include "programs/web/http/Inflate.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace tavix::web {

namespace {

constexpr size_t kMaxBits = 15;  // of a code
constexpr int kNone = -1;
constexpr int kBlockEnd = 256;

// RFC 1951, section 3.2.5: what the codes of lengths and distances begin with, and how many bits follow.
constexpr uint16_t kLengths[] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                 31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr uint8_t kLengthBits[] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                   2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr uint16_t kDistances[] = {1,    2,    3,    4,    5,    7,    9,    13,    17,    25,
                                   33,   49,   65,   97,   129,  193,  257,  385,   513,   769,
                                   1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr uint8_t kCodeOrder[] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

// Codes of different lengths, of which each symbol's follows from the lengths of all (section 3.2.2).
struct Codes {
  std::array<uint16_t, kMaxBits + 1> counts{};
  std::vector<uint16_t> symbols;

  Codes(const uint8_t* lengths, size_t count) {
    for (size_t i = 0; i < count; ++i) ++counts[lengths[i]];
    counts[0] = 0;
    for (size_t bits = 1; bits <= kMaxBits; ++bits) {
      for (size_t i = 0; i < count; ++i) {
        if (lengths[i] == bits) symbols.push_back(static_cast<uint16_t>(i));
      }
    }
  }
};

class Inflater {
 public:
  Inflater(std::string_view bytes, size_t maxBytes) : _bytes(bytes), _maxBytes(maxBytes) { _text.reserve(maxBytes); }

  std::string Run() {
    bool isLast = false;
    while (!isLast && !_hasFailed) {
      isLast = Take(1) == 1;
      ExpandBlock(Take(2));
    }
    return std::move(_text);
  }

 private:
  // The lowest bit of a byte comes first. Behind the end all bits are 0.
  int Take(size_t count) {
    int value = 0;
    for (size_t i = 0; i < count; ++i, ++_at) {
      if (_at / 8 >= _bytes.size()) return Fail();
      value |= (static_cast<unsigned char>(_bytes[_at / 8]) >> (_at % 8) & 1) << i;
    }
    return value;
  }

  int Fail() {
    _hasFailed = true;
    return 0;
  }

  int TakeSymbol(const Codes& codes) {
    int code = 0;
    int first = 0;
    size_t index = 0;
    for (size_t bits = 1; bits <= kMaxBits && !_hasFailed; ++bits) {
      code |= Take(1);
      const int count = codes.counts[bits];
      if (code - first < count) return codes.symbols[index + static_cast<size_t>(code - first)];
      index += static_cast<size_t>(count);
      first = (first + count) * 2;
      code *= 2;
    }
    Fail();
    return kNone;
  }

  void ExpandBlock(int type) {
    if (type == 0) return CopyStored();
    if (type == 1) return ExpandFixed();
    if (type == 2) return ExpandDynamic();
    Fail();
  }

  void CopyStored() {
    _at = (_at + 7) / 8 * 8;
    const auto length = static_cast<size_t>(Take(16));
    Take(16);
    if (_hasFailed || _at / 8 + length > _bytes.size() || _text.size() + length > _maxBytes) {
      Fail();
      return;
    }
    _text.append(_bytes.substr(_at / 8, length));
    _at += length * 8;
  }

  void ExpandFixed() {
    std::array<uint8_t, 288 + 30> lengths{};
    std::fill_n(lengths.begin(), 144, uint8_t{8});
    std::fill_n(lengths.begin() + 144, 112, uint8_t{9});
    std::fill_n(lengths.begin() + 256, 24, uint8_t{7});
    std::fill_n(lengths.begin() + 280, 8, uint8_t{8});
    std::fill_n(lengths.begin() + 288, 30, uint8_t{5});
    Expand(Codes(lengths.data(), 288), Codes(lengths.data() + 288, 30));
  }

  void ExpandDynamic() {
    const auto literals = static_cast<size_t>(Take(5)) + 257;
    const auto distances = static_cast<size_t>(Take(5)) + 1;
    const auto count = static_cast<size_t>(Take(4)) + 4;
    std::array<uint8_t, std::size(kCodeOrder)> ofLengths{};
    for (size_t i = 0; i < count; ++i) ofLengths[kCodeOrder[i]] = static_cast<uint8_t>(Take(3));
    const std::vector<uint8_t> lengths = TakeLengths(Codes(ofLengths.data(), ofLengths.size()), literals + distances);
    if (!_hasFailed) Expand(Codes(lengths.data(), literals), Codes(lengths.data() + literals, distances));
  }

  // Section 3.2.7: 16 repeats the last one, 17 and 18 are zeros.
  std::vector<uint8_t> TakeLengths(const Codes& codes, size_t count) {
    std::vector<uint8_t> lengths;
    while (lengths.size() < count && !_hasFailed) {
      const int symbol = TakeSymbol(codes);
      if (symbol < 16) {
        lengths.push_back(static_cast<uint8_t>(symbol));
        continue;
      }
      const int repeated = symbol == 16 ? 3 + Take(2) : symbol == 17 ? 3 + Take(3) : 11 + Take(7);
      const uint8_t length = symbol != 16      ? uint8_t{0}
                             : lengths.empty() ? static_cast<uint8_t>(Fail())
                                               : lengths.back();
      lengths.insert(lengths.end(), static_cast<size_t>(repeated), length);
    }
    if (lengths.size() != count) Fail();
    return lengths;
  }

  void Expand(const Codes& literals, const Codes& distances) {
    while (!_hasFailed) {
      const int symbol = TakeSymbol(literals);
      if (_hasFailed || symbol == kBlockEnd) return;
      if (symbol > kBlockEnd) {
        Repeat(static_cast<size_t>(symbol - kBlockEnd - 1), distances);
      } else if (_text.size() < _maxBytes) {
        _text += static_cast<char>(symbol);
      } else {
        Fail();
      }
    }
  }

  void Repeat(size_t symbol, const Codes& distances) {
    if (symbol >= std::size(kLengths)) {
      Fail();
      return;
    }
    const size_t length = kLengths[symbol] + static_cast<size_t>(Take(kLengthBits[symbol]));
    const auto code = static_cast<size_t>(TakeSymbol(distances));
    if (_hasFailed || code >= std::size(kDistances)) {
      Fail();
      return;
    }
    const size_t distance = kDistances[code] + static_cast<size_t>(Take(code < 4 ? 0 : code / 2 - 1));
    if (_hasFailed || distance > _text.size() || _text.size() + length > _maxBytes) {
      Fail();
      return;
    }
    for (size_t i = 0; i < length; ++i) _text += _text[_text.size() - distance];
  }

  const std::string_view _bytes;
  const size_t _maxBytes;
  size_t _at = 0;  // the next bit
  bool _hasFailed = false;
  std::string _text;
};

}  // namespace

std::string Inflate(std::string_view bytes, size_t maxBytes) {
  return Inflater(bytes, maxBytes).Run();
}

}  // namespace tavix::web
