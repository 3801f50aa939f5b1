#include "programs/server/connections/TurnClock.h"

#include <algorithm>
#include <ctime>

namespace tavix::daemon {

namespace {

int64_t ReadMicroseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

int64_t ReadTime() {
  return ReadMicroseconds(CLOCK_MONOTONIC);
}

int64_t ReadWork() {
  return ReadMicroseconds(CLOCK_THREAD_CPUTIME_ID);
}

}  // namespace

TurnClock::TurnClock(Kind kind) noexcept : TurnClock(kind, {ReadTime, ReadWork}) {}

TurnClock::TurnClock(Kind kind, const Clocks& clocks) noexcept
    : _clocks(clocks), _kind(kind), _time(clocks.readTime()), _work(kind == Kind::kWork ? clocks.readWork() : 0) {}

// A long turn's work is what the short ones before it have left of the thread's.
unsigned int TurnClock::EndTurn() noexcept {
  const int64_t now = _clocks.readTime();
  int64_t cost = now - _time;
  _time = now;
  if (_kind == Kind::kWork && cost > kMaxShort) {
    const int64_t work = _clocks.readWork();
    cost = std::clamp<int64_t>(work - _work - _shortTurns, 0, cost);
    _work = work;
    _shortTurns = 0;
  } else {
    _shortTurns += cost;
  }
  return static_cast<unsigned int>(cost);
}

}  // namespace tavix::daemon
