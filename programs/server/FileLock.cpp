#include "programs/server/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tavix::daemon {

FileLock::FileLock(const std::string& path) : _path(path + ".lock") {
  while (!Acquire()) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) throw Held("'" + path + "' is in use by process " + ReadOwner());
    if (errno != ESTALE) throw osa::Exception("Failed to lock '%s': %s", _path.c_str(), std::strerror(errno));
  }
  if (ftruncate(_file.Get(), 0) != 0 || dprintf(_file.Get(), "%d\n", static_cast<int>(getpid())) < 0)
    throw osa::Exception("Failed to write '%s': %s", _path.c_str(), std::strerror(errno));
}

// Unlocked first, another process could lock the file that is then removed, and a third one a new file.
FileLock::~FileLock() {
  unlink(_path.c_str());
}

// False with errno set. ESTALE: the file that was locked has been removed by its owner meanwhile.
bool FileLock::Acquire() {
  _file.Reset(open(_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
  if (!_file || flock(_file.Get(), LOCK_EX | LOCK_NB) != 0) return false;
  struct stat locked {};
  struct stat present {};
  if (fstat(_file.Get(), &locked) != 0) return false;
  if (stat(_path.c_str(), &present) == 0 && locked.st_ino == present.st_ino && locked.st_dev == present.st_dev)
    return true;
  errno = ESTALE;
  return false;
}

// Its number; "?" in the moment before it is written.
std::string FileLock::ReadOwner() const {
  char text[32];
  const ssize_t count = pread(_file.Get(), text, sizeof text, 0);
  const std::string owner(text, count > 0 ? static_cast<size_t>(count) : 0);
  const std::string digits = owner.substr(0, owner.find('\n'));
  return digits.empty() ? "?" : digits;
}

}  // namespace tavix::daemon
