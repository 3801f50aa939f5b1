#pragma once

#include <cstdint>
#include <string>

namespace tavix::daemon {

// How much memory this process may use, in bytes: the machine's memory, or the limit of one of its control groups
// (memory.max of version 2, memory.limit_in_bytes of version 1; its own group and those above it), whichever is less.
// A plain value.
//
// Errors: a file that can't be read, or holds no number, limits nothing.
class MemorySize {
 public:
  // The memory of the machine that this runs on.
  MemorySize();

  // root: stands in front of /proc and /sys. machineBytes: the machine's memory.
  MemorySize(const std::string& root, uint64_t machineBytes);

  uint64_t GetBytes() const { return _bytes; }

 private:
  void ReadControlGroup(const std::string& root, const std::string& line);
  void ReadLimits(const std::string& mount, std::string group, const char* file);

  uint64_t _bytes;
};

}  // namespace tavix::daemon
