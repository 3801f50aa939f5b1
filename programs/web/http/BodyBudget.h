#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

namespace tavix::web {

// How much memory the bodies of all requests together may take.
//
// Threads: any.
// Owns:    nothing; outlives all shares.
class BodyBudget {
 public:
  using Share = std::shared_ptr<const void>;

  explicit BodyBudget(size_t maxBytes) : _left(maxBytes) {}

  // A share of so many bytes, which its last owner gives back; null when less is left.
  Share Take(size_t bytes);

 private:
  std::atomic<size_t> _left;
};

}  // namespace tavix::web
