#include "programs/cli/session/Latency.h"

#include <algorithm>
#include <chrono>

namespace tavix::programs::cli {

double MeasureLatency(Session& session) {
  using Clock = std::chrono::steady_clock;
  const Session::Groups absent{"TavixSettings/Ping"};
  auto best = Clock::duration::max();
  for (int i = 0; i < 3; ++i) {
    const Clock::time_point start = Clock::now();
    session.Get(absent);
    best = std::min(best, Clock::now() - start);
  }
  return std::chrono::duration<double, std::milli>(best).count();
}

}  // namespace tavix::programs::cli
