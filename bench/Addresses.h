#pragma once

#include <random>
#include <string>
#include <vector>

#include "bench/SampleSettings.h"

namespace tavix::bench {

// One setting's place.
struct Address {
  std::string group;
  std::string key;
};

// The same shuffled places in every run.
inline std::vector<Address> ShuffledAddresses(int groups, int keys) {
  constexpr int kCount = 4096;
  std::mt19937 random(42);
  std::uniform_int_distribution<int> anyGroup(0, groups - 1);
  std::uniform_int_distribution<int> anyKey(0, keys - 1);
  std::vector<Address> addresses;
  for (int i = 0; i < kCount; ++i) addresses.push_back({GroupName(anyGroup(random)), KeyName(anyKey(random))});
  return addresses;
}

}  // namespace tavix::bench
