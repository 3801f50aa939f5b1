#include "programs/server/store/LayerFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <utility>

#include "programs/server/system/NullDevice.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace fs = std::filesystem;

namespace {

using Names = std::map<std::string, std::vector<std::string>>;  // paths by base name, the strongest last

std::vector<std::string> ListDirectory(const std::string& path) {
  std::error_code error;
  std::vector<std::string> files;
  for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().extension() == ".ini") files.push_back(entry->path().string());
  }
  if (error) throw osa::Exception("Failed to read directory '%s': %s", path.c_str(), error.message().c_str());
  std::sort(files.begin(), files.end());
  return files;
}

void AddPath(const std::string& path, std::vector<LayerFile>& files) {
  std::error_code error;
  if (!fs::is_directory(path, error)) {
    files.push_back({path, ""});
    return;
  }
  for (std::string& file : ListDirectory(path)) files.push_back({std::move(file), ""});
}

bool IsMissing(const std::string& directory) {
  struct stat status {};
  return stat(directory.c_str(), &status) != 0 && errno == ENOENT;
}

Names FindDropIns(const std::vector<std::string>& directories) {
  Names names;
  for (const std::string& directory : directories) {
    if (IsMissing(directory)) continue;
    for (std::string& file : ListDirectory(directory)) {
      std::string name = fs::path(file).filename().string();
      names[std::move(name)].push_back(std::move(file));
    }
  }
  return names;
}

bool IsSwitchedOff(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return false;
  return IsNullDevice(status) || (S_ISREG(status.st_mode) && status.st_size == 0);
}

}  // namespace

std::vector<LayerFile> ListLayerFiles(const LayerSources& sources) {
  std::vector<LayerFile> files;
  for (const std::string& path : sources.paths) AddPath(path, files);
  for (const auto& [name, paths] : FindDropIns(sources.directories)) {
    const std::string& strongest = paths.back();
    for (size_t i = 0; i + 1 < paths.size(); ++i) files.push_back({paths[i], "overridden by " + strongest});
    files.push_back({strongest, IsSwitchedOff(strongest) ? "switched off" : ""});
  }
  return files;
}

}  // namespace tavix::daemon
