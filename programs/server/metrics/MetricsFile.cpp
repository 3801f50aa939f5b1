#include "programs/server/metrics/MetricsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "programs/server/metrics/Metrics.h"
#include "programs/server/system/Descriptor.h"
#include "programs/server/system/LinkTarget.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr mode_t kForEverybody = 0644;  // whatever the umask: a collector is another user's

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw osa::Exception("Failed to %s metrics file '%s': %s", what, path.c_str(), std::strerror(errno));
}

}  // namespace

MetricsFile::MetricsFile(const std::string& path, const Counters& counters,
                         const settings::server::SettingsManager& manager)
    : _path(FollowLinks(path)), _newPath(_path + ".new"), _counters(counters), _manager(manager) {}

MetricsFile::~MetricsFile() {
  unlink(_path.c_str());
  unlink(_newPath.c_str());
}

void MetricsFile::Write() {
  try {
    Replace(ComposeMetrics(_counters, _manager));
    _fails = false;
  } catch (const std::exception& exception) {
    if (!_fails) core::Logger::GetLogger("MetricsFile")->Error("%s", exception.what());
    _fails = true;
    unlink(_newPath.c_str());  // half a file would take room where there is none
  }
}

void MetricsFile::Replace(const std::string& text) const {
  if (unlink(_newPath.c_str()) != 0 && errno != ENOENT) Fail("remove", _newPath);
  const Descriptor file(open(_newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file || fchmod(file.Get(), kForEverybody) != 0) Fail("create", _newPath);
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.Get(), text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) Fail("write", _newPath);
    if (written > 0) done += static_cast<size_t>(written);
  }
  if (std::rename(_newPath.c_str(), _path.c_str()) != 0) Fail("replace", _path);
}

}  // namespace tavix::daemon
