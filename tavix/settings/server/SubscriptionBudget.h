#pragma once

#include <atomic>
#include <cstddef>

namespace tavix::settings::server {

// How many bytes the names and patterns of all subscriptions of a server may have together. Each connection counts its
// own.
//
// Threads: any.
class SubscriptionBudget {
 public:
  explicit SubscriptionBudget(size_t max) : _max(max) {}

  SubscriptionBudget(const SubscriptionBudget&) = delete;
  SubscriptionBudget& operator=(const SubscriptionBudget&) = delete;

  // False, having taken nothing, when there are fewer left.
  [[nodiscard]] bool Take(size_t bytes) {
    size_t taken = _taken.load(std::memory_order_relaxed);
    do {
      if (bytes > _max - taken) return false;
    } while (!_taken.compare_exchange_weak(taken, taken + bytes, std::memory_order_relaxed));
    return true;
  }

  void Return(size_t bytes) { _taken.fetch_sub(bytes, std::memory_order_relaxed); }

  size_t GetMax() const { return _max; }

 private:
  const size_t _max;
  std::atomic<size_t> _taken{0};
};

}  // namespace tavix::settings::server
