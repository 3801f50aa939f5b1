#pragma once

#include <atomic>

namespace tavix::settings::server {

// What all handlers of the process count together beside their commands.
//
// Threads: any. Never destroyed.
struct HandlerCounts {
  std::atomic<unsigned long long> unknown{0};
  std::atomic<unsigned long long> replies{0};
  std::atomic<unsigned long long> notices{0};
  std::atomic<unsigned long long> refusedSubscriptions{0};

  static void CountOne(std::atomic<unsigned long long>& count) { count.fetch_add(1, std::memory_order_relaxed); }
};

inline HandlerCounts handlerCounts;

}  // namespace tavix::settings::server
