#include "programs/server/ServiceManager.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>

#include "programs/server/Descriptor.h"

namespace tavix::daemon {

namespace {

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

ServiceManager::ServiceManager() {
  const std::string socket = Variable("NOTIFY_SOCKET");
  const bool hasKnownForm = socket.size() > 1 && (socket.front() == '/' || socket.front() == '@');
  if (hasKnownForm && socket.size() < sizeof(sockaddr_un::sun_path)) _socket = socket;
  const std::string process = Variable("WATCHDOG_PID");
  if (process.empty() || process == std::to_string(getpid()))
    _watchdogTime = std::chrono::microseconds(Number(Variable("WATCHDOG_USEC")));
}

void ServiceManager::Tell(const std::string& lines) const {
  if (!IsListening()) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  _socket.copy(address.sun_path, _socket.size());
  if (_socket.front() == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _socket.size());
  const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sendto(sender.Get(), lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
         reinterpret_cast<const sockaddr*>(&address), size);
}

bool ServiceManager::HasJournal() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  return Variable("JOURNAL_STREAM") == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace tavix::daemon
