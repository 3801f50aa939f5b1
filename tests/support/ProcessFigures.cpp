#include "tests/support/ProcessFigures.h"

#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace tavix::test {

namespace {

std::string Path(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

size_t CountEntries(pid_t process, const char* directory) {
  const std::filesystem::directory_iterator entries(Path(process, directory));
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t ReadStatus(pid_t process, const std::string& name) {
  std::ifstream status(Path(process, "status"));
  for (std::string word; status >> word;) {
    size_t value = 0;
    if (word == name && status >> value) return value;
  }
  throw std::runtime_error("No " + name + " in " + Path(process, "status"));
}

size_t StatusInBytes(pid_t process, const std::string& name) {
  return ReadStatus(process, name) * 1024;
}

size_t Growth([[maybe_unused]] size_t before, [[maybe_unused]] size_t now) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return 0;
#else
  return now > before ? now - before : 0;
#endif
}

}  // namespace

size_t CountDescriptors(pid_t process) {
  return CountEntries(process, "fd");
}

size_t DescriptorTableSize(pid_t process) {
  return ReadStatus(process, "FDSize:");
}

size_t CountThreads(pid_t process) {
  return CountEntries(process, "task");
}

size_t CountWaits(pid_t process) {
  return ReadStatus(process, "voluntary_ctxt_switches:");
}

size_t ResidentMemory(pid_t process) {
  return StatusInBytes(process, "VmRSS:");
}

size_t ResidentGrowth(pid_t process, size_t before) {
  return Growth(before, ResidentMemory(process));
}

size_t PeakResidentGrowth(pid_t process, size_t before) {
  return Growth(before, StatusInBytes(process, "VmHWM:"));
}

size_t PeakAddressSpace(pid_t process) {
  return StatusInBytes(process, "VmPeak:");
}

double ProcessorTime(pid_t process) {
  clockid_t clock{};
  timespec used{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
    throw std::runtime_error("No process " + std::to_string(process));
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

}  // namespace tavix::test
