#include "programs/server/system/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "programs/common/SettingsFileNames.h"

namespace tavix::daemon {

namespace {

constexpr int kFlags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// Whether this tells of the file system, and nothing of another process.
bool IsOfTheFileSystem(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EROFS:
    case EIO:
    case ENOENT:
    case ENOTDIR:
    case ENOLCK:
    case ENOSYS:
    case EOPNOTSUPP:
      return true;
    default:
      return false;
  }
}

}  // namespace

FileLock::FileLock(const std::string& path) : _path(programs::LockFileOf(path)) {
  for (Outcome outcome = Outcome::kRemoved; outcome != Outcome::kLocked;) {
    outcome = TryLock();
    if (outcome == Outcome::kFailed && errno != EINTR) Fail(path, errno);
  }
  WriteOwner();
}

void FileLock::Fail(const std::string& path, int error) const {
  if (error == EWOULDBLOCK) throw Held("'" + path + "' is in use by process " + ReadOwner());
  const std::string message = "Failed to lock '" + _path + "': " + std::strerror(error);
  if (IsOfTheFileSystem(error) || (error == EACCES && !IsThere())) throw CanNotBeMade(message);
  throw osa::Exception("%s", message.c_str());
}

// The number is for error texts only: a full disk must not cost the lock.
void FileLock::WriteOwner() const {
  const std::string owner = std::to_string(getpid()) + "\n";
  const bool isWritten = ftruncate(_file.Get(), 0) == 0 && pwrite(_file.Get(), owner.data(), owner.size(), 0) > 0;
  (void)isWritten;
}

// Unlocked first, another process could lock the file that is then removed, and a third one a new file.
FileLock::~FileLock() {
  unlink(_path.c_str());
}

// kFailed: errno tells why. kRemoved: the file that was locked has been taken away by its owner meanwhile.
FileLock::Outcome FileLock::TryLock() {
  Open();
  if (!_file || flock(_file.Get(), LOCK_EX | LOCK_NB) != 0) return Outcome::kFailed;
  struct stat locked {};
  struct stat present {};
  if (fstat(_file.Get(), &locked) != 0) return Outcome::kFailed;
  const bool isThere = stat(_path.c_str(), &present) == 0;
  const bool isSame = locked.st_ino == present.st_ino && locked.st_dev == present.st_dev;
  return isThere && isSame ? Outcome::kLocked : Outcome::kRemoved;
}

// Not for others to open, who could keep the daemon from starting by a lock of their own. A disk that became read-only
// may hold the lock of a daemon that runs.
void FileLock::Open() {
  _file.Reset(open(_path.c_str(), O_RDWR | O_CREAT | kFlags, 0600));
  if (_file || errno != EROFS) return;
  _file.Reset(open(_path.c_str(), O_RDONLY | kFlags));
  if (!_file && errno == ENOENT) errno = EROFS;
}

bool FileLock::IsThere() const {
  struct stat present {};
  return lstat(_path.c_str(), &present) == 0;
}

// Its number; "?" before it was written, or when it could not be.
std::string FileLock::ReadOwner() const {
  char text[32];
  const ssize_t count = pread(_file.Get(), text, sizeof text, 0);
  const std::string owner(text, count > 0 ? static_cast<size_t>(count) : 0);
  const std::string digits = owner.substr(0, owner.find('\n'));
  return digits.empty() ? "?" : digits;
}

}  // namespace tavix::daemon
