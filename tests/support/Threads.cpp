#include "tests/support/Threads.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

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

void AwaitSameLook(const std::function<std::string()>& look, int times) {
  std::string last;
  int same = 0;
  const bool isSame = Eventually([&] {
    const std::string now = look();
    same = now.empty() || now != last ? 1 : same + 1;
    last = now;
    return !now.empty() && same >= times;
  });
  if (!isSame) throw std::runtime_error("What is waited for does not come to rest");
}

std::string LookAtThread(pid_t thread) {
  return SleepOf(fs::path(kOwnTasks) / std::to_string(thread));
}

void AwaitAsleep(pid_t thread) {
  AwaitSameLook([&] { return LookAtThread(thread); }, kLooksAtOne);
}

// What one of them waits for on its way is another one that runs. Between the two looks, all slept at one time.
void AwaitAllAsleep(pid_t process) {
  const fs::path tasks = "/proc/" + std::to_string(process) + "/task";
  AwaitSameLook([&] { return SleepOfAll(tasks); }, 2);
}

}  // namespace tavix::test
