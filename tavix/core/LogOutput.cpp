#include "tavix/core/LogOutput.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tavix/core/DescriptorWriter.h"

namespace tavix::core {

namespace {

// Our levels are numbered as the system log's; what is below its last one counts as that.
int SystemLevelOf(LogLevel level) {
  return std::min<int>(level, LOG_DEBUG);
}

// Whether the system log's daemon has so much unread that the C library would wait for it. One that is not there, or
// that listens in another way, does not make it wait.
bool IsStuck(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  pollfd state{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), POLLOUT, 0};
  const bool isThere = connect(state.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const bool isStuck = isThere && poll(&state, 1, 0) == 0;
  if (state.fd >= 0) close(state.fd);
  return isStuck;
}

class DescriptorOutput : public LogOutput {
 public:
  explicit DescriptorOutput(int descriptor) : _writer(descriptor) {}

  bool Write(LogLevel, const std::string& line, const std::string&) override { return _writer.Write(line); }

 private:
  DescriptorWriter _writer;
};

class JournalOutput : public LogOutput {
 public:
  explicit JournalOutput(int descriptor) : _writer(descriptor) {}

  bool Write(LogLevel level, const std::string&, const std::string& text) override {
    return _writer.Write("<" + std::to_string(SystemLevelOf(level)) + ">" + text + "\n");
  }

 private:
  DescriptorWriter _writer;
};

class SystemLogOutput : public LogOutput {
 public:
  explicit SystemLogOutput(const std::string& socket) : _socket(socket) {}

  bool Write(LogLevel level, const std::string&, const std::string& text) override {
    if (IsStuck(_socket)) return false;
    syslog(LOG_USER | SystemLevelOf(level), "%s", text.c_str());
    return true;
  }

 private:
  const std::string _socket;
};

}  // namespace

std::unique_ptr<LogOutput> MakeDescriptorOutput(int descriptor) {
  return std::make_unique<DescriptorOutput>(descriptor);
}

std::unique_ptr<LogOutput> MakeJournalOutput(int descriptor) {
  return std::make_unique<JournalOutput>(descriptor);
}

std::unique_ptr<LogOutput> MakeSystemLogOutput(const std::string& socket) {
  return std::make_unique<SystemLogOutput>(socket);
}

}  // namespace tavix::core
