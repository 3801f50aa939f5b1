#include "tests/support/Threads.h"

#include <filesystem>
#include <fstream>

#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr char kOwnTasks[] = "/proc/self/task";

// "sleeping", with the number of times that the thread gave up the processor by itself; empty when it runs or is gone.
std::string SleepOf(const fs::path& task) {
  std::ifstream file(task / "status");
  bool sleeps = false;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("State:\tS", 0) == 0) sleeps = true;
    if (sleeps && line.rfind("voluntary_ctxt_switches:", 0) == 0) return line;
  }
  return std::string();
}

// Empty when one of them runs.
std::string SleepOfAll(const fs::path& tasks) {
  std::string all;
  for (const auto& task : fs::directory_iterator(tasks)) {
    const std::string one = SleepOf(task.path());
    if (one.empty()) return one;
    all += one + '\n';
  }
  return all;
}

// A thread may sleep for a moment on its way: it must be found in the very same sleep many times in a row.
template <typename GetSleep>
bool AwaitSleep(const GetSleep& getSleep) {
  std::string last;
  int same = 0;
  return Eventually([&] {
    const std::string now = getSleep();
    same = !now.empty() && now == last ? same + 1 : 0;
    last = now;
    return same == 50;
  });
}

}  // namespace

std::vector<pid_t> FindThreads(const std::string& name) {
  std::vector<pid_t> found;
  for (const auto& task : fs::directory_iterator(kOwnTasks)) {
    std::ifstream file(task.path() / "comm");
    std::string comm;
    if (std::getline(file, comm) && comm == name) found.push_back(std::stoi(task.path().filename().string()));
  }
  return found;
}

bool AwaitAsleep(pid_t thread) {
  const fs::path task = fs::path(kOwnTasks) / std::to_string(thread);
  return AwaitSleep([&] { return SleepOf(task); });
}

bool AwaitAllAsleep(pid_t process) {
  const fs::path tasks = "/proc/" + std::to_string(process) + "/task";
  return AwaitSleep([&] { return SleepOfAll(tasks); });
}

}  // namespace tavix::test
