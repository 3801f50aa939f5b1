// What stands on top of the client: documents and variables that follow the store, bookings, and many callers at once.

#include <atomic>
#include <cstdlib>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/Micro.h"
#include "bench/SampleSettings.h"
#include "bench/Samples.h"
#include "bench/Timing.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/IniWatcher.h"
#include "tavix/settings/ResourceReserver.h"
#include "tavix/settings/SettingsWatcher.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::bench {

namespace {

using Client = settings::TavixSettingsClient;

constexpr char kTryUpdate[] = "try-update-idle";
constexpr char kVariables[] = "update-1000-variables";
constexpr char kBooking[] = "booking";
constexpr char kCallers[] = "client-throughput";
constexpr int kVariableCount = 1000;
constexpr int kGroups = 100;

void MeasureTryUpdate(Recorder& recorder) {
  Client client(Client::Local, SettingsDocument(kGroups, kKeysOfGroup));
  core::IniFile document;
  settings::IniWatcher watcher(&client, &document);
  watcher.AddPattern("*");
  watcher.Update();
  MeasureCall(recorder, {kTryUpdate, kOurs, "nothing pending"}, kNanoseconds, 1,
              [&] { benchmark::DoNotOptimize(watcher.TryUpdate()); });
}

// One group changed, so every variable is read anew; the change itself is not counted.
void MeasureVariables(Recorder& recorder) {
  Client client(Client::Local);
  settings::SettingsWatcher watcher(&client);
  std::deque<int> variables(kVariableCount);
  for (int i = 0; i < kVariableCount; ++i)
    watcher.AddSetting(GroupName(i % kGroups), KeyName(i / kGroups), &variables[static_cast<size_t>(i)]);
  watcher.UpdateSettings();
  Samples samples;
  for (int i = 1; i <= recorder.Choose(200, 2000); ++i) {
    client.SetValue({GroupName(0), KeyName(0)}, std::to_string(i));
    samples.Add(Timed([&] { watcher.TryUpdateSettings(); }));
    if (variables[0] != i) throw osa::Exception("The variable did not follow");
  }
  recorder.Add({kVariables, kOurs, "one group changed"}, kMicroseconds, samples);
}

// Competitors book all the time, each for a consumer of its own; the time is that of one booking of the first.
void MeasureBooking(Recorder& recorder, int competitors) {
  const Daemon daemon(recorder.GetSetup().server, {});
  setenv("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(daemon.GetPort())).c_str(), 1);
  core::IniFile declared;
  for (int i = 0; i < competitors; ++i)
    declared.SetInt("Resources/Share/Consumers/c" + std::to_string(i), "CurrentlyUsed", 0);
  Client(Client::SingleThreaded).MergeSettings(declared);

  std::atomic<bool> stop{false};
  std::vector<std::thread> others;
  for (int i = 1; i < competitors; ++i) {
    others.emplace_back([&stop, i] {
      Client client(Client::SingleThreaded);
      settings::ResourceReserver reserver(&client, "Share", "c" + std::to_string(i));
      for (int amount = 0; !stop; amount = 1 - amount) static_cast<void>(reserver.TrySetUsage(amount));
    });
  }
  Client client(Client::SingleThreaded);
  settings::ResourceReserver reserver(&client, "Share", "c0");
  Samples samples;
  for (int i = 0; i < recorder.Choose(50, 500); ++i) {
    samples.Add(Timed([&] {
      if (!reserver.TrySetUsage(i % 2)) throw osa::Exception("The booking did not fit");
    }));
  }
  stop = true;
  for (std::thread& other : others) other.join();
  recorder.Add({kBooking, kOurs, std::to_string(competitors) + (competitors == 1 ? " consumer" : " consumers")},
               kMicroseconds, samples);
}

// Threads that share one multi-threaded client, or have one each.
void MeasureCallers(Recorder& recorder, int callers, bool share) {
  const std::string file = WriteSettingsFile(recorder.GetSetup().directory, "callers.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", file});
  setenv("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(daemon.GetPort())).c_str(), 1);
  std::deque<Client> clients;
  for (int i = 0; i < (share ? 1 : callers); ++i) {
    core::IniFile warm;
    clients.emplace_back(Client::MultiThreaded).GetSettings(GroupName(0), warm);
  }
  const int calls = recorder.Choose(1000, 10000) / callers;
  const double microseconds = Timed([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i) {
      threads.emplace_back([&client = clients[share ? 0 : static_cast<size_t>(i)], calls, i] {
        for (int call = 0; call < calls; ++call) {
          core::IniFile out;
          client.GetSettings(GroupName(i), out);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  const std::string variant = std::to_string(callers) + (callers == 1 ? " caller" : " callers");
  recorder.Add({kCallers, kOurs, variant + (share ? "" : ", a client each")}, kOperationsPerSecond,
               calls * callers / microseconds * 1e6);
}

}  // namespace

void AddLayersBenches(Suite& suite) {
  suite.Add({kTryUpdate}, MeasureTryUpdate);
  suite.Add({kVariables}, MeasureVariables);
  suite.Add({kBooking}, [](Recorder& recorder) {
    for (int competitors : {1, 8}) MeasureBooking(recorder, competitors);
  });
  suite.Add({kCallers}, [](Recorder& recorder) {
    for (int callers : {1, 8, 64}) MeasureCallers(recorder, callers, true);
    MeasureCallers(recorder, 8, false);
  });
}

}  // namespace tavix::bench
