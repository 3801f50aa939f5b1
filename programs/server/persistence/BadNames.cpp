#include "programs/server/persistence/BadNames.h"

#include <ctime>

#include "programs/common/SettingsFileNames.h"

namespace tavix::daemon {

std::string FindBadName(FileSystem& files, const std::string& path) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  const std::string name = programs::BadFilesOf(path) + text;
  std::string free = name;
  for (int i = 2; files.Exists(free); ++i) free = name + "-" + std::to_string(i);
  return free;
}

}  // namespace tavix::daemon
