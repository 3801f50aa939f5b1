#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

constexpr int kProcesses = 8;
constexpr int kTotal = 100;

std::string SecondsToRun() {
  const char* seconds = std::getenv("TAVIX_BOOKING_SECONDS");
  return seconds ? seconds : "5";
}

std::string ConsumerGroup(int consumer) {
  return "Resources/Slots/Consumers/" + std::to_string(consumer);
}

// Every consumer is declared: only then can no two first bookings miss each other.
std::string Defaults() {
  core::IniFile settings;
  settings.SetInt("Resources/Slots", "TotalAvailable", kTotal);
  for (int consumer = 0; consumer < kProcesses; ++consumer)
    settings.SetInt(ConsumerGroup(consumer), "CurrentlyUsed", 0);
  return TextOf(settings);
}

core::IniFile ReadFigures(ProtocolClient& reader) {
  const std::string reply = reader.Get("Resources/Slots*\n");
  return DocumentOf(reply.substr(reply.find('\n') + 1, reply.size() - sizeof "data\n.\n" + 1));
}

int SumOfBookings(const core::IniFile& figures) {
  int sum = 0;
  for (int consumer = 0; consumer < kProcesses; ++consumer)
    sum += figures.GetIntOrDefault(ConsumerGroup(consumer), "CurrentlyUsed", 0);
  return sum;
}

bool WasRefused(const std::unique_ptr<DaemonProcess>& process) {
  return process->GetErrors().find("refused\n") != std::string::npos;
}

}  // namespace

// One reading by the independent reader sees all bookings as of one moment.
TEST(ResourceManager, ManyProcessesNeverHoldMoreThanTheTotalLoseNoBookingAndNoneStarves) {
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", Defaults());
  const Daemon daemon(directory, {"--defaults", "defaults.ini"});
  const ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(daemon.GetPort())).c_str());
  std::vector<std::unique_ptr<DaemonProcess>> processes;
  for (int consumer = 0; consumer < kProcesses; ++consumer) {
    const std::vector<std::string> arguments{std::to_string(consumer), std::to_string(consumer % 2), SecondsToRun()};
    processes.push_back(std::make_unique<DaemonProcess>(TAVIX_BOOKING_PROGRAM, directory.GetPath(), arguments));
  }

  ProtocolClient reader(daemon.GetPort());
  std::atomic<bool> ended{false};
  BackgroundCall polling([&] {
    for (int polls = 0; !ended || polls == 0; ++polls) EXPECT_LE(SumOfBookings(ReadFigures(reader)), kTotal);
  });
  // None starves: each books while all the others go on.
  for (const auto& process : processes) process->AwaitErrors("booked\n");
  EXPECT_TRUE(Eventually([&] { return std::any_of(processes.begin(), processes.end(), WasRefused); }))
      << "there was enough for all: this has shown nothing";
  for (const auto& process : processes) process->Signal(SIGTERM);
  std::vector<int> held;
  for (const auto& process : processes) {
    EXPECT_EQ(process->AwaitEnd(), 0) << process->GetErrors();
    held.push_back(std::stoi(process->GetOutput()));
  }
  ended = true;
  polling.Join();

  const core::IniFile figures = ReadFigures(reader);
  for (int consumer = 0; consumer < kProcesses; ++consumer)
    EXPECT_EQ(figures.GetIntOrDefault(ConsumerGroup(consumer), "CurrentlyUsed", -1),
              held[static_cast<size_t>(consumer)]);
}

}  // namespace tavix::test
