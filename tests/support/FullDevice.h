#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace tavix::test {

// Lets no file of the process grow beyond that many bytes, as a full device does.
class FullDevice {
 public:
  explicit FullDevice(rlim_t bytes) : _handler(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &_before);
    const rlimit limit{bytes, _before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDevice() {
    setrlimit(RLIMIT_FSIZE, &_before);
    signal(SIGXFSZ, _handler);
  }

 private:
  void (*_handler)(int);
  rlimit _before{};
};

}  // namespace tavix::test
