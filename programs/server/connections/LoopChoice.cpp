#include "programs/server/connections/LoopChoice.h"

#include <ctime>

namespace tavix::daemon {

namespace {

uint32_t ReadMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000);
}

}  // namespace

LoopChoice::LoopChoice() : LoopChoice(ReadMicroseconds) {}

bool LoopChoice::IsInBurst() noexcept {
  const uint32_t now = _readMicroseconds();
  const uint32_t gap = now - _lastArrival.exchange(now, std::memory_order_relaxed);
  const uint32_t before = _inBurst.load(std::memory_order_relaxed);
  const bool goesOn = gap <= (before < kMany ? kMaxGap : kMaxGapOfMany);
  _inBurst.store(goesOn ? before + 1 : 1, std::memory_order_relaxed);
  return goesOn;
}

}  // namespace tavix::daemon
