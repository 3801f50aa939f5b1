#include "programs/web/http/BodyBudget.h"

namespace tavix::web {

BodyBudget::Share BodyBudget::Take(size_t bytes) {
  size_t left = _left;
  do {
    if (bytes > left) return nullptr;
  } while (!_left.compare_exchange_weak(left, left - bytes));
  return {this, [this, bytes](const void*) { _left += bytes; }};
}

}  // namespace tavix::web
