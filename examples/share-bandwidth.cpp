// Three processes share the bandwidth of a device. Each uses a fixed part of it ten times, and gives it back in
// between; together they want more than there is, so now and then one has to wait for another.
//
//     share-bandwidth                              starts the three and checks that they never hold more than there is
//     share-bandwidth CONSUMER KBIT-PER-SECOND     is one of them
//
// The budget and its consumers stand in device/defaults.d/80-resources.ini. Every consumer is declared there, for one
// that stands nowhere could book unseen.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/ResourceManager.h"
#include "tavix/settings/ResourceReserver.h"
#include "tavix/settings/TavixSettingsClient.h"

using tavix::core::IniFile;
using tavix::settings::IChangeCallback;
using tavix::settings::ResourceManager;
using tavix::settings::ResourceReserver;
using tavix::settings::TavixSettingsClient;

namespace {

constexpr char kResource[] = "Bandwidth";
constexpr char kFigures[] = "Resources/Bandwidth*";
constexpr int kTimes = 10;

struct Use {
  const char* consumer;
  int kbitPerSecond;
};

constexpr Use kUses[] = {{"LiveView", 12000}, {"Recorder", 8000}, {"CloudUpload", 4000}};

// Counts changes of the figures, and waits for the next.
class Changes : public IChangeCallback {
 public:
  void OnChange(const std::set<std::string>&, const IniFile&) override {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_count;
    _changed.notify_one();
  }

  int Count() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _count;
  }

  void WaitForMoreThan(int count) {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [&] { return _count > count; });
  }

 private:
  std::mutex _mutex;  // guards what follows
  std::condition_variable _changed;
  int _count = 0;
};

// Tries again whenever somebody has booked or given back: a change after the count was taken ends the wait.
void Book(ResourceReserver& bandwidth, int kbitPerSecond, Changes& changes) {
  for (int seen = changes.Count(); !bandwidth.TrySetUsage(kbitPerSecond); seen = changes.Count())
    changes.WaitForMoreThan(seen);
}

void UseSeveralTimes(const std::string& consumer, int kbitPerSecond) {
  Changes changes;  // outlives the client that calls it
  TavixSettingsClient settings(TavixSettingsClient::MultiThreaded);
  settings.Subscribe(&changes, kFigures);
  ResourceReserver bandwidth(&settings, kResource, consumer);
  for (int times = 0; times < kTimes; ++times) {
    Book(bandwidth, kbitPerSecond, changes);
    if (!bandwidth.TrySetUsage(0)) throw std::runtime_error("a booking can always be given back");
  }
  settings.UnSubscribe(&changes);
}

pid_t Start(const Use& use, char* program) {
  std::string consumer = use.consumer;
  std::string amount = std::to_string(use.kbitPerSecond);
  char* arguments[] = {program, &consumer[0], &amount[0], nullptr};
  pid_t process = 0;
  if (const int error = posix_spawn(&process, "/proc/self/exe", nullptr, nullptr, arguments, environ))
    throw std::runtime_error("can't start another process: " + std::string(std::strerror(error)));
  return process;
}

// One reading shows all bookings as of one moment.
void CheckBookings(ResourceManager& manager) {
  manager.Refresh();
  int booked = 0;
  for (const Use& use : kUses) booked += manager.GetUsed(use.consumer, kResource);
  if (booked > manager.GetTotal(kResource)) throw std::runtime_error("more was booked than there is");
}

void WaitFor(pid_t process, ResourceManager& manager) {
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(process, &status, WNOHANG)) == 0) CheckBookings(manager);
  if (ended != process || status != 0) throw std::runtime_error("one of the processes failed");
}

void ShareBandwidth(char* program) {
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);
  ResourceManager manager(&settings);
  std::vector<pid_t> processes;
  for (const Use& use : kUses) processes.push_back(Start(use, program));
  for (const pid_t process : processes) WaitFor(process, manager);
  for (const Use& use : kUses)
    std::cout << use.consumer << " had its " << use.kbitPerSecond << " kbit/s " << kTimes << " times\n";
  std::cout << "never was more booked than " << manager.GetTotal(kResource) << " kbit/s\n";
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 3) {
      UseSeveralTimes(argv[1], std::atoi(argv[2]));
    } else {
      ShareBandwidth(argv[0]);
    }
  } catch (const std::exception& exception) {
    std::cerr << "share-bandwidth: " << exception.what() << "\n";
    return EXIT_FAILURE;
  }
}
