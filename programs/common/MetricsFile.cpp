#include "programs/common/MetricsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::programs {

namespace {

constexpr mode_t kForEverybody = 0644;  // whatever the umask: a collector is another user's

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw osa::Exception("Failed to %s metrics file '%s': %s", what, path.c_str(), std::strerror(errno));
}

}  // namespace

MetricsFile::MetricsFile(const std::string& path, std::function<std::string()> compose)
    : _path(path), _newPath(_path + ".new"), _compose(std::move(compose)) {}

MetricsFile::~MetricsFile() {
  if (IsOurs()) unlink(_path.c_str());
}

void MetricsFile::Write() {
  try {
    Replace(_compose());
    _fails = false;
  } catch (const std::exception& exception) {
    if (!_fails) core::Logger::GetLogger("MetricsFile")->Error("%s", exception.what());
    _fails = true;
  }
}

void MetricsFile::Replace(const std::string& text) {
  if (unlink(_newPath.c_str()) != 0 && errno != ENOENT) Fail("remove", _newPath);
  const Identity written = WriteNew(text);
  if (std::rename(_newPath.c_str(), _path.c_str()) != 0) {
    const int error = errno;
    unlink(_newPath.c_str());
    errno = error;
    Fail("replace", _path);
  }
  _written = written;
}

MetricsFile::Identity MetricsFile::WriteNew(const std::string& text) const {
  const osa::Descriptor file(open(_newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) Fail("create", _newPath);
  try {
    struct stat status {};
    if (fchmod(file.Get(), kForEverybody) != 0 || fstat(file.Get(), &status) != 0) Fail("create", _newPath);
    for (size_t done = 0; done < text.size();) {
      const ssize_t written = write(file.Get(), text.data() + done, text.size() - done);
      if (written < 0 && errno != EINTR) Fail("write", _newPath);
      if (written > 0) done += static_cast<size_t>(written);
    }
    return {status.st_dev, status.st_ino};
  } catch (...) {
    unlink(_newPath.c_str());  // half a file would take room where there is none
    throw;
  }
}

bool MetricsFile::IsOurs() const {
  struct stat status {};
  return _written && lstat(_path.c_str(), &status) == 0 && status.st_dev == _written->device &&
         status.st_ino == _written->number;
}

}  // namespace tavix::programs
