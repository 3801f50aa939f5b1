#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// As long as it lives, this process gets no new descriptor. For tests that have no other thread running.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &_before);
    const osa::Descriptor next(open("/dev/null", O_RDONLY | O_CLOEXEC));  // the lowest that is free
    const rlimit none{static_cast<rlim_t>(next.Get()), _before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &_before); }

  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  rlimit _before{};
};

}  // namespace tavix::test
