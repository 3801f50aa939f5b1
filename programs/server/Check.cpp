#include "programs/server/Check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "programs/server/Program.h"
#include "programs/server/SettingsSources.h"
#include "programs/server/connections/Listener.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/system/LinkTarget.h"

namespace tavix::daemon {

namespace {

using Problems = std::vector<std::string>;

// 0, or the error of making a file there.
int ErrorOfDirectory(const std::string& file) {
  const size_t slash = file.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  return access(directory.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

// What a start goes on in spite of, as a device has to come up: files that the daemon can't write.
void WarnOfFile(const char* option, const std::string& file) {
  if (file.empty()) return;
  const int error = ErrorOfDirectory(file);
  if (error != 0) std::printf("warning: --%s '%s': %s\n", option, file.c_str(), std::strerror(error));
}

void WarnOfLogFile(const std::string& file) {
  struct stat status {};
  if (!file.empty() && lstat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    std::printf("warning: --log-file '%s': not a regular file\n", file.c_str());
  } else {
    WarnOfFile("log-file", file);
  }
}

void WarnOfFiles(const Options& options) {
  WarnOfFile("user-settings", FollowLinks(options.userSettings));
  WarnOfLogFile(options.log.file);
  WarnOfFile("metrics-file", FollowLinks(options.metricsFile));
}

void Print(const Problems& problems) {
  for (const std::string& problem : problems) std::fprintf(stderr, "tavix-settings-server: %s\n", problem.c_str());
}

}  // namespace

int RunCheck(const Options& options) {
  Counters counters;
  SettingsSources sources(options, counters);
  const SettingsStore store(sources);
  const Problems files = sources.GetProblems();
  const Problems addresses = Listener::FindProblems(options);
  if (options.configurationWasGiven) std::printf("configuration: %s\n", options.configuration.c_str());
  for (const SettingsSources::Report& report : sources.GetReports()) std::printf("%s\n", report.ToText().c_str());
  WarnOfFiles(options);
  Print(addresses);
  Print(files);
  if (!addresses.empty()) return kExitUnavailable;
  if (!files.empty()) return kExitConfiguration;
  const size_t groups = store.CountGroups();
  std::printf("ok: %zu %s\n", groups, groups == 1 ? "group" : "groups");
  return kExitDone;
}

}  // namespace tavix::daemon
