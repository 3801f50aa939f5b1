#include "programs/server/Upkeep.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <exception>
#include <utility>

#include "programs/server/LogSetup.h"
#include "programs/server/metrics/Metrics.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/server/ClientHandler.h"

namespace tavix::daemon {

using settings::server::ClientHandler;
using settings::server::SettingsManager;

namespace {

constexpr int kFeedsInATime = 3;  // one that comes late is no reason to be restarted
constexpr std::chrono::milliseconds kShortestInterval{1};
constexpr std::chrono::hours kLongestInterval{1};

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Upkeep");
  return logger;
}

std::string MonotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(now.tv_sec * 1000000LL + now.tv_nsec / 1000);
}

}  // namespace

Upkeep::Upkeep(const Options& options, const std::vector<GivenOption>& commandLine, std::string addresses,
               const Counters& counters, const SettingsManager& manager, const programs::ServiceManager& serviceManager,
               std::function<void()> probe)
    : _commandLine(commandLine),
      _addresses(std::move(addresses)),
      _counters(counters),
      _serviceManager(serviceManager) {
  if (!options.metricsFile.empty()) {
    ClientHandler::TimeCommands();
    _metricsFile.emplace(options.metricsFile, [&counters, &manager] { return ComposeMetrics(counters, manager); });
    _metrics.emplace("Metrics", std::chrono::seconds(options.metricsSeconds), [this] { _metricsFile->Write(); });
  }
  _serviceManager.Notify("READY=1\n" + GetStatus());
  if (_serviceManager.GetWatchdogTime().count() > 0) StartWatchdog(std::move(probe));
}

void Upkeep::StartWatchdog(std::function<void()> probe) {
  using std::chrono::milliseconds;
  const auto wanted = std::chrono::duration_cast<milliseconds>(_serviceManager.GetWatchdogTime() / kFeedsInATime);
  const milliseconds interval = std::clamp<milliseconds>(wanted, kShortestInterval, kLongestInterval);
  _watchdog.emplace("Watchdog", interval, [this, probe = std::move(probe)] {
    probe();
    _serviceManager.Notify("WATCHDOG=1\n" + GetStatus());
  });
}

void Upkeep::OnSignal(int signal) {
  if (signal == SIGHUP) {
    _serviceManager.Notify("RELOADING=1\nMONOTONIC_USEC=" + MonotonicMicroseconds());
    ReadLogOptions();
    _serviceManager.Notify("READY=1\n" + GetStatus());
  } else if (signal == SIGUSR1) {
    ClientHandler::LogStatistics(nullptr);
    if (_metrics) _metrics->Trigger();
  } else {
    _serviceManager.Notify("STOPPING=1\nSTATUS=Ending");
  }
}

// What happened is said afterwards, but for a level that would hide it: then before.
void Upkeep::ReadLogOptions() const {
  constexpr char kDone[] =
      "SIGHUP: the log options were read again; everything else, defaults included, needs a restart";
  try {
    const Options options = ReadOptions(_commandLine);
    const bool isHiddenAfter = options.log.level < core::kLogNotice;
    if (isHiddenAfter) Log()->Notice("%s", kDone);
    ReconfigureLog(options.log);
    if (!isHiddenAfter) Log()->Notice("%s", kDone);
  } catch (const std::exception& exception) {
    Log()->Error("SIGHUP: %s; the log options stay as they were", exception.what());
  }
}

std::string Upkeep::GetStatus() const {
  const unsigned long long clients = _counters.clients.Get();
  return "STATUS=Serving " + std::to_string(clients) + (clients == 1 ? " client on " : " clients on ") + _addresses;
}

}  // namespace tavix::daemon
