// Several processes increment one counter in the store, and no increment is lost: each writes its new figure only if
// the one that it has read is still there, and reads again when it is not.
//
//     count-together              starts four processes of 25 increments each, and prints what the counter then says
//     count-together INCREMENTS   is one of these processes

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/settings/TavixSettingsClient.h"

using tavix::core::IniFile;
using tavix::settings::TavixSettingsClient;

namespace {

constexpr char kGroup[] = "Examples/Counter";
constexpr char kTotal[] = "[Examples/Counter]total";
constexpr int kProcesses = 4;
constexpr char kIncrements[] = "25";

void Increment(TavixSettingsClient& settings) {
  IniFile seen, next;
  do {
    settings.GetSettings(kGroup, seen);
    next.SetInt(kGroup, "total", seen.GetIntOrDefault(kGroup, "total", 0) + 1);
  } while (!settings.TestAndMerge(seen, next));
}

pid_t Start(char* program) {
  std::string increments = kIncrements;
  char* arguments[] = {program, &increments[0], nullptr};
  pid_t process = 0;
  if (const int error = posix_spawn(&process, "/proc/self/exe", nullptr, nullptr, arguments, environ))
    throw std::runtime_error("can't start another process: " + std::string(std::strerror(error)));
  return process;
}

void WaitFor(pid_t process) {
  int status = 0;
  if (waitpid(process, &status, 0) != process || status != 0) throw std::runtime_error("one of the processes failed");
}

void CountTogether(char* program) {
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);

  // Nobody could see a missing figure change, so the first one is written before anybody counts. A write has no reply;
  // the reply to the reading tells that it was carried out.
  settings.SetValue(kTotal, "0");
  settings.GetValue(kTotal);

  std::vector<pid_t> processes;
  for (int i = 0; i < kProcesses; ++i) processes.push_back(Start(program));
  for (const pid_t process : processes) WaitFor(process);
  std::cout << kProcesses << " processes of " << kIncrements << " increments each: the counter says "
            << settings.GetValue(kTotal) << "\n";
}

void Count(int increments) {
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);
  for (int i = 0; i < increments; ++i) Increment(settings);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc > 1) {
      Count(std::atoi(argv[1]));
    } else {
      CountTogether(argv[0]);
    }
  } catch (const std::exception& exception) {
    std::cerr << "count-together: " << exception.what() << "\n";
    return EXIT_FAILURE;
  }
}
