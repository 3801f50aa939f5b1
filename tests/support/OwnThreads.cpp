#include "tests/support/OwnThreads.h"

#include <filesystem>
#include <fstream>

#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

constexpr char kTasks[] = "/proc/self/task";

// "sleeping", with the number of times that the thread gave up the processor by itself; empty when it runs or is gone.
std::string SleepOf(pid_t thread) {
  std::ifstream file(std::string(kTasks) + "/" + std::to_string(thread) + "/status");
  bool sleeps = false;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("State:\tS", 0) == 0) sleeps = true;
    if (sleeps && line.rfind("voluntary_ctxt_switches:", 0) == 0) return line;
  }
  return std::string();
}

}  // namespace

std::vector<pid_t> FindThreads(const std::string& name) {
  std::vector<pid_t> found;
  for (const auto& task : std::filesystem::directory_iterator(kTasks)) {
    std::ifstream file(task.path() / "comm");
    std::string comm;
    if (std::getline(file, comm) && comm == name) found.push_back(std::stoi(task.path().filename().string()));
  }
  return found;
}

// It may sleep for a moment on its way: it must be found in the very same sleep many times in a row.
void AwaitAsleep(pid_t thread) {
  std::string last;
  int same = 0;
  Eventually([&] {
    const std::string now = SleepOf(thread);
    same = !now.empty() && now == last ? same + 1 : 0;
    last = now;
    return same == 50;
  });
}

}  // namespace tavix::test
