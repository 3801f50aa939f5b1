#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// Puts a pipe that is full, and that makes its writers wait, into a descriptor's place for the length of a test.
class StalledPipe {
 public:
  explicit StalledPipe(int descriptor);
  ~StalledPipe();

  StalledPipe(const StalledPipe&) = delete;
  StalledPipe& operator=(const StalledPipe&) = delete;

  // Reads all that was written; what the pipe was filled with is left out.
  std::string Drain();

 private:
  const int _descriptor;
  osa::Descriptor _before;
  osa::Descriptor _reading;
};

}  // namespace tavix::test
