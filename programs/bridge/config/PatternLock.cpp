#include "programs/bridge/config/PatternLock.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>

#include "programs/bridge/config/ConfigurationError.h"
#include "programs/bridge/core/PatternOverlap.h"
#include "programs/common/client/Join.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"

namespace tavix::bridge {

using osa::Descriptor;
using osa::Exception;

namespace {

constexpr char kBegin[] = "bridge-";
constexpr char kEnd[] = ".patterns";
constexpr char kGroup[] = "patterns";

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

Descriptor Open(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (file.Get() < 0) throw Exception("Failed to open '%s': %s", path.c_str(), std::strerror(errno));
  return file;
}

bool TryLock(const Descriptor& file) {
  return flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
}

// What is changed: a pattern that only reports overlaps nothing.
std::vector<std::string> ListPatterns(const std::vector<MapRule>& maps) {
  std::vector<std::string> patterns;
  for (const MapRule& map : maps) {
    if (map.direction != Direction::kUp) patterns.push_back(map.pattern);
  }
  return patterns;
}

}  // namespace

PatternLock::PatternLock(const std::string& runtime, const std::string& name, const std::vector<MapRule>& maps)
    : _runtime(runtime), _name(name), _path(programs::Join({runtime, "/", kBegin, name, kEnd})) {
  // One bridge at a time looks at the lists and writes its own.
  const Descriptor turn = Open(runtime + "/bridges.lock");
  if (flock(turn.Get(), LOCK_EX) != 0)
    throw Exception("Failed to lock '%s': %s", runtime.c_str(), std::strerror(errno));
  _file = Open(_path);
  if (!TryLock(_file)) throw ConfigurationError(programs::Join({"A bridge '", name, "' is running already"}));
  const std::vector<std::string> patterns = ListPatterns(maps);
  for (const std::string& other : ListOthers()) RequireApart(other, patterns);
  Write(patterns);
}

PatternLock::~PatternLock() {
  (void)ftruncate(_file.Get(), 0);
}

std::vector<std::string> PatternLock::ListOthers() const {
  std::vector<std::string> others;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(_runtime.c_str()), closedir);
  if (!directory) throw Exception("Failed to read '%s': %s", _runtime.c_str(), std::strerror(errno));
  while (const dirent* entry = readdir(directory.get())) {
    const std::string file = entry->d_name;
    const bool isList = core::StringUtil::StartsWith(file, kBegin) && EndsWith(file, kEnd);
    if (isList && programs::Join({_runtime, "/", file}) != _path) others.push_back(file);
  }
  return others;
}

void PatternLock::RequireApart(const std::string& file, const std::vector<std::string>& own) const {
  const std::string path = programs::Join({_runtime, "/", file});
  const Descriptor list(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (list.Get() < 0 || TryLock(list)) return;
  const core::IniFile patterns(path.c_str());
  if (!patterns.HasGroup(kGroup)) return;
  const std::string other = file.substr(sizeof kBegin - 1, file.size() - sizeof kBegin - sizeof kEnd + 2);
  for (const auto& [number, theirs] : patterns[kGroup]) {
    for (const std::string& pattern : own) {
      if (!DoPatternsOverlap(pattern, theirs)) continue;
      throw ConfigurationError(programs::Join({"The pattern '", pattern, "' of the bridge '", _name,
                                               "' overlaps the pattern '", theirs, "' of the bridge '", other, "'"}));
    }
  }
}

void PatternLock::Write(const std::vector<std::string>& patterns) const {
  core::IniFile list;
  for (const std::string& pattern : patterns) list.SetValue(kGroup, std::to_string(list[kGroup].size()), pattern);
  std::ostringstream out;
  list.SaveToStream(out);
  const std::string text = out.str();
  const bool isWritten = ftruncate(_file.Get(), 0) == 0 &&
                         pwrite(_file.Get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
  if (!isWritten) throw Exception("Failed to write '%s': %s", _path.c_str(), std::strerror(errno));
}

}  // namespace tavix::bridge
