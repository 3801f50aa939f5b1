#pragma once

#include <sys/types.h>

#include <string>

namespace tavix::core {

// Writes lines to a descriptor that it does not own, for example standard error, and never waits for a process that
// reads what it wrote.
//
// Whether a pipe or a terminal makes its writers wait is a property that all processes share which have it, and theirs
// to choose: it stays as it is. Where /proc does not let it open them again, a terminal that has room for a part of a
// line alone, or a pipe that another process fills at the very same moment, can still make it wait.
//
// Threads: one at a time.
class DescriptorWriter {
 public:
  explicit DescriptorWriter(int descriptor) : _descriptor(descriptor) {}

  // False when the line was not taken. One of which a part was taken is finished before the next one begins.
  [[nodiscard]] bool Write(const std::string& line);

 private:
  bool Finish();
  ssize_t WriteSome() const;

  const int _descriptor;
  std::string _rest;  // of the line that has begun
};

}  // namespace tavix::core
