#include "programs/server/connections/LoopLoad.h"

#include <algorithm>
#include <ctime>

namespace tavix::daemon {

namespace {

constexpr int kQuarter = LoopLoad::kFull / 4;

// The cheapest clock there is; its steps are those of the kernel's timer.
uint32_t ReadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint32_t>(int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000);
}

int64_t ReadWork() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return int64_t{used.tv_sec} * 1'000'000 + used.tv_nsec / 1000;
}

}  // namespace

LoopLoad::LoopLoad() : LoopLoad({ReadMilliseconds, ReadWork}) {}

// A thread that waits for long begins a new window when it is woken.
void LoopLoad::BeginRound() noexcept {
  const uint32_t now = _clocks.readMilliseconds();
  _roundBegin.store(now, std::memory_order_relaxed);
  _isInRound.store(true, std::memory_order_relaxed);
  const uint32_t passed = now - _windowEnd.load(std::memory_order_relaxed);
  if (passed < kWindow) return;
  const int64_t work = _clocks.readWork();
  const int64_t permille = std::min<int64_t>(kFull, (work - _work) / passed);
  _work = work;
  _permille.store(static_cast<int>(permille), std::memory_order_relaxed);
  _windowEnd.store(now, std::memory_order_relaxed);
}

// What the other thread has noted is read before the clock: it is never ahead of it.
int LoopLoad::GetPermille() const noexcept {
  const uint32_t windowEnd = _windowEnd.load(std::memory_order_relaxed);
  return _clocks.readMilliseconds() - windowEnd < 2 * kWindow ? _permille.load(std::memory_order_relaxed) : 0;
}

bool LoopLoad::IsStuck() const noexcept {
  const uint32_t roundBegin = _roundBegin.load(std::memory_order_relaxed);
  return _isInRound.load(std::memory_order_relaxed) && _clocks.readMilliseconds() - roundBegin > kMaxShortRound;
}

bool LoopBurden::IsLessThan(const LoopBurden& other) const {
  if (isStuck != other.isStuck) return other.isStuck;
  if (permille / kQuarter != other.permille / kQuarter) return permille < other.permille;
  return connections < other.connections;
}

bool LoopBurden::MayHaveAnother(const LoopBurden& least) const {
  if (isStuck || permille / kQuarter > least.permille / kQuarter) return false;
  return connections > least.connections && connections - least.connections < kMaxMoreConnections;
}

}  // namespace tavix::daemon
