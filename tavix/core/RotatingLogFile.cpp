#include "tavix/core/RotatingLogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"

namespace tavix::core {

namespace {

// The steps from "directory" to "file", the last of them the file's own name.
std::vector<std::string> StepsBelow(const std::string& directory, const std::string& file) {
  std::string relative = file;
  if (file.find('/') != std::string::npos) {
    const std::string prefix = directory == "/" ? directory : directory + "/";
    if (!StringUtil::StartsWith(file, prefix))
      throw osa::Exception("Log file '%s' is not below '%s'", file.c_str(), directory.c_str());
    relative = file.substr(prefix.size());
  }
  std::vector<std::string> steps;
  StringUtil::Split(steps, relative, "/", 0);
  for (const std::string& step : steps) {
    if (step.empty() || step == "." || step == ".." || step.find('\0') != std::string::npos)
      throw osa::Exception("Log file '%s' is no plain path below '%s'", file.c_str(), directory.c_str());
  }
  return steps;
}

}  // namespace

RotatingLogFile::RotatingLogFile(const std::string& directory, const std::string& file, Limits limits)
    : _path(file), _limits(limits) {
  std::vector<std::string> steps = StepsBelow(directory, file);
  _name = steps.back();
  steps.pop_back();
  _directory.Reset(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const std::string& step : steps) {
    if (!_directory) break;
    osa::Descriptor next(openat(_directory.Get(), step.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int error = errno;
    _directory = std::move(next);
    errno = error;
  }
  if (!_directory) throw osa::Exception("Failed to open log file '%s': %s", file.c_str(), std::strerror(errno));
  Open();
}

bool RotatingLogFile::Write(LogLevel, const std::string& line, const std::string&) {
  try {
    if (!IsInPlace()) {
      _file.Reset();
      Open();
    }
    struct stat now {};
    if (fstat(_file.Get(), &now) == 0 && now.st_size > 0 &&
        static_cast<uint64_t>(now.st_size) + line.size() > _limits.bytes) {
      Rotate();
    }
    return Append(line);
  } catch (const osa::Exception&) {
    _file.Reset();
    return false;
  }
}

// A line goes in whole or not at all: what a full device took of it would make one line with the next.
bool RotatingLogFile::Append(const std::string& line) {
  ssize_t written = 0;
  do {
    written = ::write(_file.Get(), line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  if (written >= 0 && static_cast<size_t>(written) == line.size()) return true;
  if (written <= 0) return false;
  const off_t end = lseek(_file.Get(), 0, SEEK_CUR);
  struct stat now {};
  if (fstat(_file.Get(), &now) != 0 || now.st_size != end) return false;  // another process wrote behind it
  const bool isTorn = ftruncate(_file.Get(), end - written) != 0;
  (void)isTorn;
  return false;
}

// A pipe or device could block or do harm: only a regular file will do. O_NONBLOCK is for the open itself.
void RotatingLogFile::Open() {
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  _file.Reset(openat(_directory.Get(), _name.c_str(), flags, 0640));
  if (!_file) throw osa::Exception("Failed to open log file '%s': %s", _path.c_str(), std::strerror(errno));
  struct stat status {};
  if (fstat(_file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    _file.Reset();
    throw osa::Exception("Failed to open log file '%s': not a regular file", _path.c_str());
  }
}

bool RotatingLogFile::IsInPlace() const {
  struct stat open {};
  struct stat named {};
  return _file && fstat(_file.Get(), &open) == 0 &&
         fstatat(_directory.Get(), _name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && open.st_ino == named.st_ino &&
         open.st_dev == named.st_dev;
}

void RotatingLogFile::Rotate() {
  for (int age = _limits.kept; age > 0; --age) {
    const std::string from = age == 1 ? _name : _name + "." + std::to_string(age - 1);
    renameat(_directory.Get(), from.c_str(), _directory.Get(), (_name + "." + std::to_string(age)).c_str());
  }
  _file.Reset();
  Open();
}

}  // namespace tavix::core
