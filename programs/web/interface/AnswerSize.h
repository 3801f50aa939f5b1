#pragma once

#include <cstddef>
#include <vector>

#include "programs/web/http/MemoryBudget.h"

namespace tavix::web {

// What answers may take: one of them, and all that are made or on their way together.
struct AnswerBounds {
  size_t maxBytes;
  MemoryBudget& budget;  // outlives this
};

// Accounts for what one answer takes while it is made. What takes little needs no share of the budget.
//
// Threads: one.
class AnswerSize {
 public:
  explicit AnswerSize(const AnswerBounds& bounds) : _bounds(bounds) {}

  // Throws Refusal: 507 when one answer would take too much, 503 when all together would.
  void Add(size_t bytes);

  // What it took of the budget, which the answer keeps until it has left.
  std::vector<MemoryBudget::Share> TakeShares() { return std::move(_shares); }

 private:
  const AnswerBounds& _bounds;
  size_t _bytes = 0;
  size_t _granted = 0;
  std::vector<MemoryBudget::Share> _shares;
};

}  // namespace tavix::web
