#pragma once

#include <malloc.h>

#include <cstdlib>
#include <new>

// Replaces the allocation of the whole program: for one source file of a test program, and no header.

namespace tavix::test {

// While it lives, its thread is refused that allocation, counted from 0, and perhaps all behind it. Negative: none is.
class RefusedAllocation {
 public:
  explicit RefusedAllocation(long allocation, bool areAllBehindIt = false) {
    s_left = allocation;
    s_areAllRefused = areAllBehindIt;
    s_wasRefused = false;
  }

  ~RefusedAllocation() { s_left = -1; }

  RefusedAllocation(const RefusedAllocation&) = delete;
  RefusedAllocation& operator=(const RefusedAllocation&) = delete;

  // Whether the last one of the thread has refused anything.
  static bool WasRefused() { return s_wasRefused; }

  // What the thread has allocated and nobody has freed, less what it freed of others.
  static long CountLiveBytes() { return s_liveBytes; }

  static void Free(void* memory) {
    s_liveBytes -= static_cast<long>(malloc_usable_size(memory));
    std::free(memory);
  }

  // Null: it is refused.
  static void* Allocate(size_t size) {
    if (s_left < 0 || s_left-- > 0) return Count(std::malloc(size));
    s_left = s_areAllRefused ? 0 : -1;
    s_wasRefused = true;
    return nullptr;
  }

 private:
  static void* Count(void* memory) {
    s_liveBytes += static_cast<long>(malloc_usable_size(memory));
    return memory;
  }

  static inline thread_local long s_liveBytes = 0;
  static inline thread_local long s_left = -1;  // until one is refused; negative: none is
  static inline thread_local bool s_areAllRefused = false;
  static inline thread_local bool s_wasRefused = false;
};

}  // namespace tavix::test

void* operator new(size_t size) {
  void* const memory = tavix::test::RefusedAllocation::Allocate(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return tavix::test::RefusedAllocation::Allocate(size);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
  tavix::test::RefusedAllocation::Free(memory);
}

void operator delete(void* memory) noexcept {
  tavix::test::RefusedAllocation::Free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  tavix::test::RefusedAllocation::Free(memory);
}
