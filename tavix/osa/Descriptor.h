#pragma once

#include <unistd.h>

#include <utility>

namespace tavix::osa {

// Owns a file descriptor; -1 is none.
//
// Threads: one at a time.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : _descriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) Reset(std::exchange(other._descriptor, -1));
    return *this;
  }
  ~Descriptor() { Reset(); }

  int Get() const { return _descriptor; }
  explicit operator bool() const { return _descriptor >= 0; }

  int Release() { return std::exchange(_descriptor, -1); }

  void Reset(int descriptor = -1) {
    if (_descriptor >= 0) close(_descriptor);
    _descriptor = descriptor;
  }

 private:
  int _descriptor;
};

}  // namespace tavix::osa
