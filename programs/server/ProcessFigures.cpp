#include "programs/server/ProcessFigures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace tavix::daemon {

namespace {

constexpr int kFieldsBeforeStartTime = 19;  // behind the name, as proc(5) numbers them

double BootTime() {
  std::ifstream file("/proc/stat");
  double time = 0;
  for (std::string word; file >> word;) {
    if (word == "btime") file >> time;
  }
  return time;
}

// The name stands in parentheses and may hold blanks, and parentheses.
double StartTimeSinceBoot() {
  std::ifstream file("/proc/self/stat");
  std::string text;
  std::getline(file, text);
  const size_t nameEnd = text.rfind(')');
  if (nameEnd == std::string::npos) return 0;
  std::istringstream fields(text.substr(nameEnd + 1));
  std::string skipped;
  for (int i = 0; i < kFieldsBeforeStartTime; ++i) fields >> skipped;
  double ticks = 0;
  fields >> ticks;
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

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
  return {BootTime() + StartTimeSinceBoot(), ResidentBytes(), CountDescriptors()};
}

}  // namespace tavix::daemon
