#include "tavix/core/LogOutput.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

namespace tavix::core {

namespace {

class DescriptorOutput : public LogOutput {
 public:
  explicit DescriptorOutput(int descriptor) : _descriptor(descriptor) {}

  void Write(LogLevel, const std::string& line, const std::string&) override {
    const char* at = line.data();
    size_t left = line.size();
    while (left > 0) {
      const ssize_t written = ::write(_descriptor, at, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;
      at += written;
      left -= static_cast<size_t>(written);
    }
  }

 private:
  int _descriptor;
};

class SystemLogOutput : public LogOutput {
 public:
  void Write(LogLevel level, const std::string&, const std::string& text) override {
    syslog(LOG_USER | (level >= kLogTrace ? LOG_DEBUG : static_cast<int>(level)), "%s", text.c_str());
  }
};

}  // namespace

std::unique_ptr<LogOutput> MakeDescriptorOutput(int descriptor) {
  return std::make_unique<DescriptorOutput>(descriptor);
}

std::unique_ptr<LogOutput> MakeSystemLogOutput() {
  return std::make_unique<SystemLogOutput>();
}

}  // namespace tavix::core
