#include "tests/support/StackUse.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace tavix::test {

namespace {

void Require(int error, const char* call) {
  if (error) throw std::system_error(error, std::generic_category(), call);
}

}  // namespace

// A page of a stack is there once it was touched, and stays: the lowest one tells.
StackUse MeasureStack(pthread_t thread) {
  pthread_attr_t attributes;
  void* lowest = nullptr;
  StackUse use;
  Require(pthread_getattr_np(thread, &attributes), "pthread_getattr_np");
  Require(pthread_attr_getstack(&attributes, &lowest, &use.mapped), "pthread_attr_getstack");
  pthread_attr_destroy(&attributes);
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> pages(use.mapped / page);
  Require(mincore(lowest, pages.size() * page, pages.data()) == 0 ? 0 : errno, "mincore");
  size_t untouched = 0;
  while (untouched < pages.size() && (pages[untouched] & 1) == 0) ++untouched;
  use.used = use.mapped - untouched * page;
  return use;
}

}  // namespace tavix::test
