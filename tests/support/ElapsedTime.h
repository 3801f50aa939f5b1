#pragma once

#include <chrono>

namespace tavix::test {

// How long the call took, in milliseconds rounded down.
template <class Call>
long MillisecondsOf(Call call) {
  const auto begin = std::chrono::steady_clock::now();
  call();
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count());
}

}  // namespace tavix::test
