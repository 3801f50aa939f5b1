#pragma once

#include <chrono>
#include <cstdint>

#include "tavix/osa/Export.h"

namespace tavix::osa {

// A time limit that never passes, for every operation here that takes milliseconds. 0 does not wait at all.
constexpr unsigned int kWaitForever = 0xFFFFFFFFu;

// A point on the monotonic clock, which starts at an arbitrary moment and never jumps. A plain value.
struct TimeStruct {
  int64_t seconds = 0;
  int32_t nanoseconds = 0;  // 0 to 999999999
};

// Reads the monotonic clock into "out".
TAVIX_EXPORT void TimeMonotonic(TimeStruct& out);

// The moment at which a time limit ends, on the monotonic clock: a jump of the wall clock neither fires nor freezes it.
// A plain value.
class TAVIX_EXPORT Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  // timeout: milliseconds from now; kWaitForever never ends.
  explicit Deadline(unsigned int timeout)
      : _never(timeout == kWaitForever), _end(Clock::now() + std::chrono::milliseconds(_never ? 0 : timeout)) {}

  bool IsNever() const { return _never; }
  Clock::time_point GetEnd() const { return _end; }

  // What is left, rounded up to whole milliseconds, in the form that poll(2) takes: -1 for ever, 0 when it has passed.
  int GetPollTimeout() const;

 private:
  bool _never;
  Clock::time_point _end;
};

}  // namespace tavix::osa
