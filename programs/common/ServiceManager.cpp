#include "programs/common/ServiceManager.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>

namespace tavix::programs {

namespace {

constexpr timeval kLongestWait{1, 0};

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

// 0 when it is no number.
unsigned long long Number(const std::string& text) {
  unsigned long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? number : 0;
}

}  // namespace

// A name that begins with '@' is an abstract one.
ServiceManager::ServiceManager() {
  const std::string name = Variable("NOTIFY_SOCKET");
  const bool hasKnownForm = name.size() > 1 && (name.front() == '/' || name.front() == '@');
  if (hasKnownForm && name.size() < sizeof(sockaddr_un::sun_path)) {
    _name = name;
    if (name.front() == '@') _name.front() = '\0';
    _socket.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    setsockopt(_socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
  }
  const std::string process = Variable("WATCHDOG_PID");
  if (process.empty() || process == std::to_string(getpid()))
    _watchdogTime = std::chrono::microseconds(Number(Variable("WATCHDOG_USEC")));
}

void ServiceManager::Notify(const std::string& lines) const {
  if (_name.empty()) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  _name.copy(address.sun_path, _name.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _name.size());
  sendto(_socket.Get(), lines.data(), lines.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
}

bool ServiceManager::HasJournal() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  return Variable("JOURNAL_STREAM") == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace tavix::programs
