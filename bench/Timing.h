#pragma once

#include <time.h>

#include <chrono>

namespace tavix::bench {

// Microseconds on the monotonic clock, which is the same in every process of the machine.
inline double NowInMicroseconds() {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Seconds of processor time that the calling process has used.
inline double ProcessorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

// Microseconds that "operation" takes.
template <class Operation>
double Timed(Operation operation) {
  const double start = NowInMicroseconds();
  operation();
  return NowInMicroseconds() - start;
}

}  // namespace tavix::bench
