#include "tests/support/ProcessFigures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavix::test {

namespace {

std::string Path(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

size_t CountEntries(pid_t process, const char* directory) {
  const std::filesystem::directory_iterator entries(Path(process, directory));
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t StatusInBytes(pid_t process, const std::string& name) {
  std::ifstream status(Path(process, "status"));
  for (std::string word; status >> word;) {
    size_t kilobytes = 0;
    if (word == name && status >> kilobytes) return kilobytes * 1024;
  }
  throw std::runtime_error("No " + name + " in " + Path(process, "status"));
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

size_t CountThreads(pid_t process) {
  return CountEntries(process, "task");
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
  std::ifstream file(Path(process, "stat"));
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const size_t name = text.rfind(')');  // which may hold blanks
  if (name == std::string::npos) throw std::runtime_error("No process " + std::to_string(process));
  std::istringstream fields(text.substr(name + 2));
  const std::vector<std::string> values((std::istream_iterator<std::string>(fields)),
                                        std::istream_iterator<std::string>());
  return (std::stod(values.at(11)) + std::stod(values.at(12))) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace tavix::test
