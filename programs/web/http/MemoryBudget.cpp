#include "programs/web/http/MemoryBudget.h"

namespace tavix::web {

MemoryBudget::Share MemoryBudget::Take(size_t bytes) {
  size_t left = _left;
  do {
    if (bytes > left) return nullptr;
  } while (!_left.compare_exchange_weak(left, left - bytes));
  return {this, [this, bytes](const void*) { _left += bytes; }};
}

}  // namespace tavix::web
