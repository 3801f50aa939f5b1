#include "programs/server/Check.h"

#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "programs/common/LinkTarget.h"
#include "programs/server/ExitCode.h"
#include "programs/server/connections/Listener.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/options/MemoryShares.h"
#include "programs/server/store/FilePlaces.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/SettingsStore.h"
#include "programs/server/system/MemorySize.h"

namespace tavix::daemon {

namespace {

using Problems = std::vector<std::string>;

// What a start goes on in spite of, as a device has to come up: files that the daemon can't write.
void WarnOfFile(const char* option, const std::string& file) {
  const std::string problem = FindDirectoryProblem(file);
  if (!problem.empty()) std::printf("warning: --%s '%s': %s\n", option, file.c_str(), problem.c_str());
}

void WarnOfLogFile(const std::string& file) {
  struct stat status {};
  if (!file.empty() && lstat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    std::printf("warning: --log-file '%s': not a regular file\n", file.c_str());
  } else {
    WarnOfFile("log-file", file);
  }
}

// The first problem of the metrics' place, which keeps the daemon from starting.
void CheckMetricsFile(const std::string& file, Problems& problems) {
  try {
    WarnOfFile("metrics-file", ResolveMetricsFile(file));
  } catch (const std::exception& exception) {
    problems.emplace_back(exception.what());
  }
}

// The daemon would start, but a device whose changes are not kept is not what anybody wants.
void CheckUserSettings(const std::string& file, Problems& problems) {
  try {
    const std::string problem = FindWhyNotKept(programs::FollowOwnLinks(file));
    if (!problem.empty()) problems.push_back(problem);
  } catch (const programs::ForeignLink&) {
    return;  // loading has found that
  }
}

// The bounds of memory that depend on the machine.
void PrintBounds(const Limits& limits) {
  std::printf("bounds: --all-backlogs %s, --all-requests %s, --max-store %s, with %s of memory\n",
              FormatSize(limits.allBacklogBytes).c_str(), FormatSize(limits.allRequestBytes).c_str(),
              FormatSize(limits.storeBytes).c_str(), FormatSize(MemorySize().GetBytes()).c_str());
}

void Print(const Problems& problems) {
  for (const std::string& problem : problems) std::fprintf(stderr, "tavix-settings-server: %s\n", problem.c_str());
}

// A start goes on with them, too, but nobody can add anything then.
bool IsFullByDefaults(const SettingsSources& sources, size_t max) {
  return max > 0 && sources.GetLayerBytes() > max;
}

}  // namespace

int RunCheck(const Options& options) {
  Counters counters;
  SettingsSources sources(options, counters);
  const SettingsStore store(sources, options, counters);
  Problems files = sources.GetProblems();
  const Problems addresses = Listener::FindProblems(options);
  if (options.configurationWasGiven) std::printf("configuration: %s\n", options.configuration.c_str());
  for (const SettingsSources::Report& report : sources.GetReports()) std::printf("%s\n", report.ToText().c_str());
  PrintBounds(options.limits);
  WarnOfLogFile(options.log.file);
  CheckUserSettings(options.userSettings, files);
  CheckMetricsFile(options.metricsFile, files);
  const std::string fullness = store.DescribeFullness();
  if (!fullness.empty()) std::printf("warning: %s\n", fullness.c_str());
  Print(addresses);
  Print(files);
  if (!addresses.empty()) return kExitUnavailable;
  if (!files.empty() || IsFullByDefaults(sources, options.limits.storeBytes)) return kExitConfiguration;
  const size_t groups = store.CountGroups();
  std::printf("ok: %zu %s\n", groups, groups == 1 ? "group" : "groups");
  return kExitDone;
}

}  // namespace tavix::daemon
