#include "programs/server/metrics/ProcessFigures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace tavix::daemon {

namespace {

unsigned long long ResidentBytes() {
  std::ifstream file("/proc/self/statm");
  unsigned long long all = 0;
  unsigned long long resident = 0;
  file >> all >> resident;
  return resident * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

// The one that looks does not count.
unsigned long long CountDescriptors() {
  std::error_code error;
  unsigned long long count = 0;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
       entry.increment(error))
    ++count;
  return count > 0 ? count - 1 : 0;
}

}  // namespace

ProcessFigures ReadProcessFigures() {
  return {ResidentBytes(), CountDescriptors()};
}

}  // namespace tavix::daemon
