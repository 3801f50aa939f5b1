#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "tests/support/Loads.h"

// A load as the parameter of a test.

namespace tavix::test {

// How googletest prints it.
inline void PrintTo(const Load& load, std::ostream* out) {
  *out << load.name;
}

// What it is called within the name of a test.
inline std::string NameOf(const testing::TestParamInfo<Load>& info) {
  std::string name = info.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

}  // namespace tavix::test
