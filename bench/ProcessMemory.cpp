#include "bench/ProcessMemory.h"

#include <cstdlib>
#include <fstream>
#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

double ReadMebibytes(const std::string& path, const std::string& field) {
  std::ifstream status(path);
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, field.size() + 1, field + ":") == 0)
      return std::strtod(line.c_str() + field.size() + 1, nullptr) / 1024;
  }
  throw osa::Exception("No %s in %s", field.c_str(), path.c_str());
}

}  // namespace

double ResidentMebibytes(pid_t process) {
  return ReadMebibytes("/proc/" + std::to_string(process) + "/status", "VmRSS");
}

double AnonymousMebibytes() {
  return ReadMebibytes("/proc/self/status", "RssAnon");
}

}  // namespace tavix::bench
