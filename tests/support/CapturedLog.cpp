#include "tests/support/CapturedLog.h"

#include <unistd.h>

#include <sstream>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"

namespace tavix::test {

namespace {

void ConfigureLog(int level, const char* toStandardOutput) {
  core::IniFile settings;
  settings.SetInt("Log", "log.level", level);
  settings.SetValue("Log", "log.syslog", "false");
  settings.SetValue("Log", "log.stdout", toStandardOutput);
  core::Logger::ConfigureLogging(settings, "Log");
}

}  // namespace

CapturedLog::CapturedLog() : _output(STDOUT_FILENO) {
  ConfigureLog(core::kLogTrace, "true");
}

CapturedLog::~CapturedLog() {
  ConfigureLog(core::kLogError, "false");
}

std::vector<std::string> CapturedLog::GetMessages() const {
  std::istringstream text(_output.GetText());
  std::vector<std::string> messages;
  for (std::string line; std::getline(text, line);) messages.push_back(line.substr(line.find(' ') + 1));
  return messages;
}

}  // namespace tavix::test
