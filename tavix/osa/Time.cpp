#include "tavix/osa/Time.h"

#include <algorithm>
#include <climits>
#include <ctime>

namespace tavix::osa {

void TimeMonotonic(TimeStruct& out) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  out.seconds = now.tv_sec;
  out.nanoseconds = static_cast<int32_t>(now.tv_nsec);
}

int Deadline::GetPollTimeout() const {
  if (_never) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(_end - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

}  // namespace tavix::osa
