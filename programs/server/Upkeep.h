#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "programs/common/MetricsFile.h"
#include "programs/common/ServiceManager.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/options/CommandLine.h"
#include "programs/server/system/Periodic.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// What a daemon does beside serving: writes its metrics, tells the service manager how it is, answers signals.
//
// Threads: metrics and watchdog have a thread each, so that a disk that stalls does not look like a store that does.
//          OnSignal belongs to one thread.
class Upkeep {
 public:
  // Everything that is passed by reference outlives the upkeep. addresses: what is served, for the status line. probe:
  // for the watchdog; returns once the daemon was seen to work.
  Upkeep(const Options& options, const std::vector<GivenOption>& commandLine, std::string addresses,
         const Counters& counters, const settings::server::SettingsManager& manager,
         const programs::ServiceManager& serviceManager, std::function<void()> probe);

  // SIGHUP reads the log options again, SIGUSR1 logs the statistics and has the metrics written; other signals end the
  // daemon, which the service manager is told.
  void OnSignal(int signal);

 private:
  void StartWatchdog(std::function<void()> probe);
  void ReadLogOptions() const;
  std::string GetStatus() const;

  const std::vector<GivenOption>& _commandLine;
  const std::string _addresses;
  const Counters& _counters;
  const programs::ServiceManager& _serviceManager;
  std::optional<programs::MetricsFile> _metricsFile;
  std::optional<Periodic> _metrics;
  std::optional<Periodic> _watchdog;
};

}  // namespace tavix::daemon
