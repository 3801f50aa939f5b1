#pragma once

#include <cstdlib>

namespace tavix::test {

// Whether tests that last are to run for as long as a claim about time needs, and to make that claim: ./dev soak sets
// TAVIX_TEST_LONG. Otherwise they run for seconds, beside others, and claim only what can be counted.
inline bool IsLongRun() {
  return std::getenv("TAVIX_TEST_LONG") != nullptr;
}

}  // namespace tavix::test
