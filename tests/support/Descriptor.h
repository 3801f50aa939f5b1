#pragma once

#include <unistd.h>

#include <utility>

namespace tavix::test {

// Owns a file descriptor; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : _descriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Close();
    _descriptor = std::exchange(other._descriptor, -1);
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return _descriptor; }
  int Release() { return std::exchange(_descriptor, -1); }

  void Close() {
    if (_descriptor >= 0) close(_descriptor);
    _descriptor = -1;
  }

 private:
  int _descriptor;
};

}  // namespace tavix::test
