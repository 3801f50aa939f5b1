#include "tavix/core/DescriptorWriter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tavix::core {

namespace {

// A socket says so by itself when it is asked to take something without waiting; of the rest these can make one wait.
bool MayWait(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode));
}

// A pipe that nobody will read any more does not either.
bool TakesSome(int descriptor) {
  pollfd state{descriptor, POLLOUT, 0};
  return poll(&state, 1, 0) == 1 && state.revents == POLLOUT;
}

// The same pipe or terminal once more, with a choice of its own whether to wait. -1 when that can't be had.
int OpenAgain(int descriptor) {
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  return open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

}  // namespace

bool DescriptorWriter::Write(const std::string& line) {
  if (!Finish()) return false;
  _rest = line;
  if (Finish() || _rest.size() < line.size()) return true;
  _rest.clear();
  return false;
}

bool DescriptorWriter::Finish() {
  while (!_rest.empty()) {
    const ssize_t written = WriteSome();
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    _rest.erase(0, static_cast<size_t>(written));
  }
  return true;
}

ssize_t DescriptorWriter::WriteSome() const {
  const ssize_t sent = send(_descriptor, _rest.data(), _rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  if (!MayWait(_descriptor)) return write(_descriptor, _rest.data(), _rest.size());
  if (!TakesSome(_descriptor)) {
    errno = EAGAIN;
    return -1;
  }
  // It may be room for a part of the line alone, or for another process's, which is faster.
  const int again = OpenAgain(_descriptor);
  const ssize_t written = write(again >= 0 ? again : _descriptor, _rest.data(), _rest.size());
  const int error = errno;
  if (again >= 0) close(again);
  errno = error;
  return written;
}

}  // namespace tavix::core
