#pragma once

#include <cstddef>
#include <random>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::test {

// Makes documents that are hard to carry: names, keys and values of any bytes, with a liking for those that some text
// form gives a meaning, and with empty ones among them. The same seed makes the same documents everywhere.
class RandomDocuments {
 public:
  explicit RandomDocuments(unsigned int seed) : _random(seed) {}

  core::IniFile::GroupMap Next();

  // A byte string as documents have them, of at most "most" bytes.
  std::string NextText(size_t most);

  // Evenly below "limit".
  size_t Below(size_t limit) { return _random() % limit; }

 private:
  std::string NextByte();

  std::mt19937 _random;
};

}  // namespace tavix::test
