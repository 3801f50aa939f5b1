#include "programs/server/LogSetup.h"

#include "programs/common/ServiceManager.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

constexpr char kGroup[] = "Server";

const char* ToText(bool flag) {
  return flag ? "true" : "false";
}

// The daemon's configuration may choose any place for the log; settings, which clients write, may not.
core::IniFile Prepare(const LogOptions& options) {
  core::IniFile settings;
  settings.SetInt(kGroup, "log.level", options.level);
  settings.SetValue(kGroup, "log.stderr", ToText(options.standardError));
  settings.SetValue(kGroup, "log.syslog", ToText(options.systemLog));
  settings.SetValue(kGroup, "log.file", options.file);
  if (!options.file.empty()) core::Logger::SetLogFileDirectory(options.file.substr(0, options.file.rfind('/') + 1));
  core::Logger::SetJournal(programs::ServiceManager::HasJournal());
  return settings;
}

}  // namespace

void ConfigureLog(const LogOptions& options) {
  core::Logger::ConfigureLogging(Prepare(options), kGroup);
}

void ReconfigureLog(const LogOptions& options) {
  core::Logger::ReconfigureLogging(Prepare(options), kGroup);
}

}  // namespace tavix::daemon
