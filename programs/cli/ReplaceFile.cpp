#include "programs/cli/ReplaceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "programs/cli/Failure.h"

namespace tavix::cli {

namespace {

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
  ~Descriptor() {
    if (_descriptor > STDERR_FILENO) close(_descriptor);
  }

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return _descriptor; }

 private:
  int _descriptor;
};

[[noreturn]] void Fail(ExitCode code, const char* what, const std::string& path) {
  throw Failure(code, std::string("failed to ") + what + " '" + path + "': " + std::strerror(errno));
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Where the links end; the path itself when nothing is there yet.
std::string TargetOf(const std::string& path) {
  char target[PATH_MAX];
  return realpath(path.c_str(), target) != nullptr ? target : path;
}

void WriteAll(int descriptor, const std::string& text, const std::string& path) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) Fail(kExitNotApplied, "write", path);
    if (written > 0) done += static_cast<size_t>(written);
  }
}

void KeepPermissions(int descriptor, const std::string& path) {
  struct stat old {};
  if (stat(path.c_str(), &old) != 0) {
    const mode_t mask = umask(0);
    umask(mask);
    old.st_mode = 0666 & ~mask;
  } else if (fchown(descriptor, old.st_uid, old.st_gid) != 0) {
    old.st_mode &= 0777;  // somebody else's file: it becomes ours, without the bits that depend on who owns it
  }
  if (fchmod(descriptor, old.st_mode & 07777) != 0) Fail(kExitNotApplied, "set the permissions of", path);
}

void WriteNewFile(std::string& name, const std::string& text, const std::string& path) {
  const Descriptor file(mkostemp(name.data(), O_CLOEXEC));
  if (file.Get() < 0) Fail(kExitNotApplied, "make a file beside", path);
  try {
    WriteAll(file.Get(), text, path);
    KeepPermissions(file.Get(), path);
    if (fsync(file.Get()) != 0) Fail(kExitNotApplied, "sync", path);
    if (std::rename(name.c_str(), path.c_str()) != 0) Fail(kExitNotApplied, "replace", path);
  } catch (...) {
    unlink(name.c_str());
    throw;
  }
}

}  // namespace

std::string ReadFile(const std::string& path) {
  const Descriptor file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.Get() < 0) Fail(kExitBadInput, "open", path);
  std::string text;
  char part[64 * 1024];
  while (true) {
    const ssize_t count = read(file.Get(), part, sizeof part);
    if (count == 0) return text;
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      Fail(kExitBadInput, "read", path);
    }
  }
}

std::string FindDirectory(const std::string& path) {
  return DirectoryOf(TargetOf(path));
}

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string target = TargetOf(path);
  std::string name = target + ".XXXXXX";
  WriteNewFile(name, text, target);
  const Descriptor directory(open(DirectoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems can't sync a directory and say EINVAL; their renames are as durable as they get.
  if (directory.Get() < 0 || (fsync(directory.Get()) != 0 && errno != EINVAL))
    Fail(kExitNotApplied, "sync the directory of", target);
}

FileLock::FileLock(const std::string& path)
    : _descriptor(open(FindDirectory(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  while (_descriptor >= 0 && flock(_descriptor, LOCK_EX) != 0 && errno == EINTR) continue;
}

FileLock::~FileLock() {
  if (_descriptor >= 0) close(_descriptor);
}

}  // namespace tavix::cli
