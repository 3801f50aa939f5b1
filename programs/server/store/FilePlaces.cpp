#include "programs/server/store/FilePlaces.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "programs/common/LinkTarget.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/StartLook.h"
#include "programs/server/persistence/StartReads.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

std::string NameOf(const char* option, const std::string& path, const std::string& target) {
  const std::string name = std::string("--") + option + " '" + path + "'";
  return target == path ? name : name + ", a link to '" + target + "'";
}

// 0, or the error of making a file there.
int ErrorOfDirectory(const std::string& directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  return faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

}  // namespace

void ResolvePlaces(Options& options) {
  options.userSettings = ResolveUserSettings(options.userSettings);
  options.metricsFile = ResolveMetricsFile(options.metricsFile);
}

std::string ResolveUserSettings(const std::string& path) {
  if (path.empty()) return path;
  try {
    std::string target = programs::FollowOwnLinks(path);
    LookAtUserSettings(GetSystemFiles(), target, NameOf("user-settings", path, target));
    return target;
  } catch (const programs::ForeignLink& link) {
    throw UserSettingsRefused(UserSettingsRefused::Reason::kNotOurs,
                              "Failed to use --user-settings '" + path + "': " + link.what());
  }
}

std::string ResolveMetricsFile(const std::string& path) {
  if (path.empty()) return path;
  try {
    std::string target = programs::FollowOwnLinks(path);
    struct stat status {};
    if (lstat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
      throw osa::Exception("Failed to use %s: it is not a regular file", NameOf("metrics-file", path, target).c_str());
    return target;
  } catch (const programs::ForeignLink& link) {
    throw osa::Exception("Failed to use --metrics-file '%s': %s", path.c_str(), link.what());
  }
}

std::string FindDirectoryProblem(const std::string& file) {
  if (file.empty()) return "";
  const size_t slash = file.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash == 0 ? 1 : slash);
  const int error = ErrorOfDirectory(directory);
  return error == 0 ? "" : "directory '" + directory + "': " + std::strerror(error);
}

std::string FindWhyNotKept(const std::string& userSettings) {
  const std::string problem = FindDirectoryProblem(userSettings);
  return problem.empty() ? "" : "--user-settings '" + userSettings + "': " + problem + "; changes will not be kept";
}

}  // namespace tavix::daemon
