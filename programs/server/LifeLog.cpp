#include "programs/server/LifeLog.h"

#include <unistd.h>

#include <csignal>
#include <exception>

#include "programs/server/LogSetup.h"
#include "programs/server/options/OptionValues.h"
#include "programs/server/store/SettingsSources.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Program");
  return logger;
}

const char* NameOf(int signal) {
  return signal == SIGTERM ? "SIGTERM" : "SIGINT";
}

}  // namespace

LifeLog::LifeLog(const Options& options) : _options(options) {
  Log()->Notice("tavix-settings-server " TAVIX_VERSION " starts, process %d of user %u", static_cast<int>(getpid()),
                static_cast<unsigned int>(geteuid()));
}

void LifeLog::LogLoaded(const SettingsSources& sources) const {
  for (const SettingsSources::Report& report : sources.GetReports()) {
    const std::string text = report.ToText();
    Log()->Notice("%s", text.substr(0, text.find('\n')).c_str());
  }
  if (_options.userSettings.empty()) {
    Log()->Notice("Nothing is kept: without --user-settings changes are gone when the daemon ends");
  } else {
    Log()->Notice("Changes are kept in '%s', durability %s", _options.userSettings.c_str(),
                  FormatDurability(_options.durability).c_str());
  }
}

void LifeLog::LogServing(const std::string& addresses, size_t groups) const {
  Log()->Notice("Serving %zu %s on %s", groups, groups == 1 ? "group" : "groups", addresses.c_str());
}

// Of a process that it can't see, such as one outside of its container, the kernel tells nothing.
void LifeLog::LogEnding(const programs::Signals::Signal& signal) const {
  if (signal.process == getpid()) {
    Log()->Notice("Ending: an event loop failed");
  } else if (signal.process == 0) {
    Log()->Notice("Ending: %s", NameOf(signal.number));
  } else {
    Log()->Notice("Ending: %s from process %d of user %u", NameOf(signal.number), static_cast<int>(signal.process),
                  static_cast<unsigned int>(signal.user));
  }
}

void LifeLog::LogEnd(bool isSaved) const {
  const bool isKept = !_options.userSettings.empty();
  Log()->Notice("Ended after %.3f s%s", std::chrono::duration<double>(Clock::now() - _endsSince).count(),
                !isKept   ? ""
                : isSaved ? ", everything is saved"
                          : ", the last changes are not saved");
}

void LifeLog::LogFailure(const LogOptions& log, const std::string& text) {
  if (!log.systemLog && log.file.empty()) return;
  LogOptions others = log;
  others.standardError = false;
  try {
    ReconfigureLog(others);
    Log()->Error("%s", text.c_str());
  } catch (const std::exception&) {  // standard error was told why, when the daemon started
  }
}

}  // namespace tavix::daemon
