#include "programs/server/system/MemorySize.h"

#include <sys/sysinfo.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>

namespace tavix::daemon {

namespace {

// Not from /proc/meminfo, which a service manager may hide.
uint64_t ReadMachineMemory() {
  struct sysinfo machine {};
  if (sysinfo(&machine) != 0) return std::numeric_limits<uint64_t>::max();
  return uint64_t{machine.totalram} * machine.mem_unit;
}

// "max" is none.
uint64_t ReadLimit(const std::string& path) {
  std::ifstream file(path);
  std::string text;
  std::getline(file, text);
  uint64_t limit = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, limit);
  return error == std::errc() && stop == end ? limit : std::numeric_limits<uint64_t>::max();
}

bool HoldsMemory(const std::string& controllers) {
  return ("," + controllers + ",").find(",memory,") != std::string::npos;
}

}  // namespace

MemorySize::MemorySize() : MemorySize("", ReadMachineMemory()) {}

MemorySize::MemorySize(const std::string& root, uint64_t machineBytes) : _bytes(machineBytes) {
  std::ifstream groups(root + "/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) ReadControlGroup(root, line);
}

// A line is NUMBER:CONTROLLERS:PATH, and without controllers in version 2: cgroups(7).
void MemorySize::ReadControlGroup(const std::string& root, const std::string& line) {
  const size_t first = line.find(':');
  const size_t second = first == std::string::npos ? first : line.find(':', first + 1);
  if (second == std::string::npos) return;
  const std::string controllers = line.substr(first + 1, second - first - 1);
  const std::string group = line.substr(second + 1);
  if (controllers.empty()) {
    ReadLimits(root + "/sys/fs/cgroup", group, "/memory.max");
    ReadLimits(root + "/sys/fs/cgroup/unified", group, "/memory.max");  // beside version 1
  } else if (HoldsMemory(controllers)) {
    ReadLimits(root + "/sys/fs/cgroup/memory", group, "/memory.limit_in_bytes");
  }
}

// In a container the path may be the host's, while the mount begins at the container's group: that one is read last.
void MemorySize::ReadLimits(const std::string& mount, std::string group, const char* file) {
  if (group.find("/..") != std::string::npos) group.clear();  // outside of what is mounted
  while (true) {
    _bytes = std::min(_bytes, ReadLimit(mount + group + file));
    if (group.empty()) return;
    group.resize(group.rfind('/') == std::string::npos ? 0 : group.rfind('/'));
  }
}

}  // namespace tavix::daemon
