#include "programs/common/PassedSockets.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace tavix::programs {

namespace {

constexpr int kFirst = 3;
constexpr int kMaxSockets = 1024;

// 0 when the variable is not set or no number.
int ReadNumber(const char* variable) {
  const char* const value = std::getenv(variable);
  const std::string_view text = value ? value : "";
  int number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && stop == text.data() + text.size() ? number : 0;
}

}  // namespace

std::vector<osa::Descriptor> TakePassedSockets() {
  std::vector<osa::Descriptor> passed;
  const int count = ReadNumber("LISTEN_PID") == getpid() ? ReadNumber("LISTEN_FDS") : 0;
  for (int i = 0; i < count && i < kMaxSockets; ++i) {
    if (fcntl(kFirst + i, F_SETFD, FD_CLOEXEC) == 0) passed.emplace_back(kFirst + i);
  }
  for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(variable);
  return passed;
}

}  // namespace tavix::programs
