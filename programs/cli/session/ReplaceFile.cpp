#include "programs/cli/session/ReplaceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "programs/common/LinkTarget.h"
#include "programs/common/SettingsFileNames.h"
#include "programs/common/client/Failure.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::programs::cli {

namespace {

[[noreturn]] void Fail(ExitCode code, const char* what, const std::string& path) {
  throw Failure(code, std::string("failed to ") + what + " '" + path + "': " + std::strerror(errno));
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Where the links end, also when nothing is there yet.
std::string TargetOf(const std::string& path) {
  std::string target = programs::FollowLinks(path);
  struct stat status {};
  if (lstat(target.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) return target;
  errno = ELOOP;
  Fail(kExitNotApplied, "follow", path);
}

// Whether a daemon holds its lock on the file.
bool IsLockedByDaemon(const std::string& path) {
  const osa::Descriptor lock(open(programs::LockFileOf(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return lock.Get() >= 0 && flock(lock.Get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// Interrupts the calls of its thread after "patience", and then again and again: one signal may come too early.
class Alarm {
 public:
  explicit Alarm(std::chrono::milliseconds patience) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &_before);
    const auto microseconds = std::chrono::microseconds(patience).count();
    const itimerval timer{{0, kAgain}, {microseconds / kSecond, static_cast<suseconds_t>(microseconds % kSecond)}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  ~Alarm() {
    const itimerval none{};
    setitimer(ITIMER_REAL, &none, nullptr);
    sigaction(SIGALRM, &_before, nullptr);
  }

  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  static constexpr long kSecond = 1000 * 1000;  // in microseconds
  static constexpr suseconds_t kAgain = 20 * 1000;

  struct sigaction _before {};
};

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
  const osa::Descriptor file(mkostemp(name.data(), O_CLOEXEC));
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

std::string FindDirectory(const std::string& path) {
  return DirectoryOf(TargetOf(path));
}

void RequireReplaceable(const std::string& path) {
  const std::string target = TargetOf(path);
  struct stat status {};
  if (stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    throw Failure(kExitNotApplied, "'" + path + "' is no plain file, and nothing else is replaced");
  if (IsLockedByDaemon(target) || access(programs::JournalOf(target).c_str(), F_OK) == 0)
    throw Failure(kExitNotApplied, "'" + path + "' belongs to a daemon, which would undo the change",
                  "leave --local out, or stop the daemon; one that was killed has to be started once more before");
}

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string target = TargetOf(path);
  std::string name = target + ".XXXXXX";
  WriteNewFile(name, text, target);
  const osa::Descriptor directory(open(DirectoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems can't sync a directory and say EINVAL; their renames are as durable as they get.
  if (directory.Get() < 0 || (fsync(directory.Get()) != 0 && errno != EINVAL))
    Fail(kExitNotApplied, "sync the directory of", target);
}

FileLock::FileLock(const std::string& path, std::chrono::milliseconds patience)
    : _descriptor(open(FindDirectory(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (_descriptor) {
    Lock(path, patience);
  } else if (errno != ENOENT && errno != ENOTDIR) {
    Fail(kExitNotApplied, "lock the directory of", path);
  }
}

void FileLock::Lock(const std::string& path, std::chrono::milliseconds patience) const {
  using Clock = std::chrono::steady_clock;
  if (flock(_descriptor.Get(), LOCK_EX | LOCK_NB) == 0) return;
  const Clock::time_point end = Clock::now() + patience;
  const Alarm alarm(patience);
  while (flock(_descriptor.Get(), LOCK_EX) != 0) {
    if (errno != EINTR) Fail(kExitNotApplied, "lock the directory of", path);
    if (Clock::now() >= end)
      throw Failure(kExitNoServer, "the directory of '" + path + "' is kept locked by another command",
                    "--timeout says how long to wait for it");
  }
}

}  // namespace tavix::programs::cli
