#pragma once

#include <pthread.h>

#include <cstddef>

namespace tavix::test {

// A thread's stack: what is mapped for it, and the most of it that was ever in use, in whole pages.
struct StackUse {
  size_t mapped = 0;
  size_t used = 0;
};

// thread: one that runs, the caller's own included.
StackUse MeasureStack(pthread_t thread);

}  // namespace tavix::test
