#include "tavix/core/LogOutput.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace tavix::core {

namespace {

int SystemLevelOf(LogLevel level) {
  return level >= kLogTrace ? LOG_DEBUG : static_cast<int>(level);
}

void WriteAll(int descriptor, const std::string& text) {
  const char* at = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(descriptor, at, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    at += written;
    left -= static_cast<size_t>(written);
  }
}

class DescriptorOutput : public LogOutput {
 public:
  explicit DescriptorOutput(int descriptor) : _descriptor(descriptor) {}

  void Write(LogLevel, const std::string& line, const std::string&) override { WriteAll(_descriptor, line); }

 private:
  int _descriptor;
};

class JournalOutput : public LogOutput {
 public:
  explicit JournalOutput(int descriptor) : _descriptor(descriptor) {}

  void Write(LogLevel level, const std::string&, const std::string& text) override {
    WriteAll(_descriptor, "<" + std::to_string(SystemLevelOf(level)) + ">" + text + "\n");
  }

 private:
  int _descriptor;
};

class SystemLogOutput : public LogOutput {
 public:
  void Write(LogLevel level, const std::string&, const std::string& text) override {
    syslog(LOG_USER | SystemLevelOf(level), "%s", text.c_str());
  }
};

}  // namespace

std::unique_ptr<LogOutput> MakeDescriptorOutput(int descriptor) {
  return std::make_unique<DescriptorOutput>(descriptor);
}

std::unique_ptr<LogOutput> MakeJournalOutput(int descriptor) {
  return std::make_unique<JournalOutput>(descriptor);
}

std::unique_ptr<LogOutput> MakeSystemLogOutput() {
  return std::make_unique<SystemLogOutput>();
}

}  // namespace tavix::core
