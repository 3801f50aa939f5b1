#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

namespace tavix::web {

// How much memory all of a kind together may take, such as the bodies of requests.
//
// Threads: any.
// Owns:    nothing; outlives all shares.
class MemoryBudget {
 public:
  using Share = std::shared_ptr<const void>;

  explicit MemoryBudget(size_t maxBytes) : _left(maxBytes) {}

  // A share of so many bytes, which its last owner gives back; null when less is left.
  Share Take(size_t bytes);

 private:
  std::atomic<size_t> _left;
};

}  // namespace tavix::web
