#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <random>
#include <string>
#include <utility>

#include "tavix/settings/ResourceManager.h"
#include "tavix/settings/TavixSettingsClient.h"

// One of the many processes of a test: books and releases "Slots" at random, by amounts and by shares, until its time
// is over and a SIGTERM has come. Says "booked" and "refused" on standard error when that happens for the first time,
// and prints what it holds in the end.
//
//     BookingProcess CONSUMER OPERATION-MODE SECONDS
//
// Exits with 1 and an explanation when the store does not hold what it has booked.

namespace {

using tavix::settings::ResourceManager;
using tavix::settings::TavixSettingsClient;
using Clock = std::chrono::steady_clock;

constexpr char kResource[] = "Slots";

volatile std::sig_atomic_t g_mayEnd = 0;

struct Outcome {
  bool booked = false;  // ever
  bool refused = false;
  int held = 0;
  bool lost = false;
};

Outcome BookUntil(Clock::time_point end, const std::string& consumer, ResourceManager& manager) {
  Outcome outcome;
  std::mt19937 random(static_cast<unsigned int>(std::hash<std::string>()(consumer)));
  while ((Clock::now() < end || !g_mayEnd) && !outcome.lost) {
    const int wanted = static_cast<int>(random() % 61);
    if (manager.ReserveForConsumer(consumer, {{kResource, random() % 2 == 0, wanted, wanted / 100.0}})) {
      if (!std::exchange(outcome.booked, true)) std::cerr << "booked\n";
      outcome.held = manager.GetUsed(consumer, kResource);
    } else {
      if (!std::exchange(outcome.refused, true)) std::cerr << "refused\n";
    }
    manager.Refresh();
    outcome.lost = manager.GetUsed(consumer, kResource) != outcome.held;
  }
  return outcome;
}

int Run(const std::string& consumer, int mode, int seconds) {
  TavixSettingsClient client(static_cast<TavixSettingsClient::OperationMode>(mode));
  ResourceManager manager(&client);
  const Outcome outcome = BookUntil(Clock::now() + std::chrono::seconds(seconds), consumer, manager);
  std::cout << outcome.held << std::endl;
  if (!outcome.lost) return 0;
  std::cerr << consumer << " booked " << outcome.held << " and holds " << manager.GetUsed(consumer, kResource) << '\n';
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGTERM, [](int) { g_mayEnd = 1; });
  try {
    if (argc == 4) return Run(argv[1], std::atoi(argv[2]), std::atoi(argv[3]));
    std::cerr << "Usage: " << argv[0] << " CONSUMER OPERATION-MODE SECONDS\n";
  } catch (const std::exception& exception) {
    std::cerr << exception.what() << '\n';
  }
  return 2;
}
