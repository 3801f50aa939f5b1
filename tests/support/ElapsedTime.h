#pragma once

#include <chrono>
#include <functional>

namespace tavix::test {

// How long the call took, in milliseconds rounded down.
template <class Call>
long MillisecondsOf(Call call) {
  const auto begin = std::chrono::steady_clock::now();
  call();
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count());
}

// The same, beside what it took without the times in which the machine stood still: for limits that a call must keep.
// An exception of the call goes on to the caller.
struct ElapsedTime {
  explicit ElapsedTime(const std::function<void()>& call);

  long milliseconds = 0;
  long undisturbed = 0;
};

}  // namespace tavix::test
