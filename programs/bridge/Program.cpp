#include "programs/bridge/Program.h"

#include <sched.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "programs/bridge/ExitCode.h"
#include "programs/bridge/config/PatternLock.h"
#include "programs/bridge/options/CommandLine.h"
#include "programs/bridge/service/EngineKind.h"
#include "programs/bridge/service/Service.h"
#include "programs/common/ServiceManager.h"
#include "programs/common/Signals.h"
#include "programs/common/client/Join.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"

namespace tavix::bridge {

namespace {

class Unavailable : public osa::Exception {
 public:
  explicit Unavailable(const std::string& reason) : Exception(reason) {}
};

void ConfigureLog(int level) {
  constexpr char kGroup[] = "Bridge";
  core::IniFile settings;
  settings.SetInt(kGroup, "log.level", level);
  settings.SetValue(kGroup, "log.stderr", "true");
  settings.SetValue(kGroup, "log.syslog", "false");
  core::Logger::SetJournal(programs::ServiceManager::HasJournal());
  core::Logger::ConfigureLogging(settings, kGroup);
}

// The log waits for nobody who does not read it.
int Fail(ExitCode code, const std::exception& exception) {
  core::Logger::GetLogger("Program")->Error("%s", exception.what());
  return code;
}

Configuration Read(const EngineKind& kind, const Options& options) {
  Configuration configuration = ReadConfiguration(options.config);
  if (!kind.IsConfigured(configuration)) {
    throw ConfigurationError(programs::Join({options.config, ": [", kind.GetSection(), "]: the section is missing; ",
                                             kind.GetProgram(), " mirrors to nothing else"}));
  }
  return configuration;
}

int Check(const EngineKind& kind, const Configuration& configuration) {
  EventQueue events;
  try {
    (void)kind.MakeEngine(configuration, events);
  } catch (const osa::Exception& error) {
    throw ConfigurationError(programs::Join({"[", kind.GetSection(), "]: ", error.what()}));
  }
  std::puts("The configuration is right.");
  return kExitDone;
}

// A notice that wakes the bridge takes the processor from nobody who serves the device. Who chose a policy for it, as
// the unit does, keeps that; a system that refuses runs it as any other program.
void LetOthersGoFirst() {
  const sched_param parameters{};
  if (sched_getscheduler(0) == SCHED_OTHER) (void)sched_setscheduler(0, SCHED_BATCH, &parameters);
}

// Makes what needs the runtime directory.
template <class Made, class... Arguments>
std::unique_ptr<Made> MakeOrFail(const Arguments&... arguments) {
  try {
    return std::make_unique<Made>(arguments...);
  } catch (const ConfigurationError&) {
    throw;
  } catch (const osa::Exception& exception) {
    throw Unavailable(exception.what());
  }
}

int Serve(const EngineKind& kind, const Configuration& configuration, const Options& options) {
  LetOthersGoFirst();
  programs::Signals::Block();
  const programs::Signals signals;
  const programs::ServiceManager serviceManager;
  const auto lock = MakeOrFail<PatternLock>(configuration.runtime, configuration.name, configuration.maps);
  const auto service = MakeOrFail<Service>(kind, configuration, options, serviceManager, signals);
  service->Run();
  return kExitDone;
}

}  // namespace

int RunProgram(const EngineKind& kind, int argc, char** argv) {
  Options options;
  if (!ParseCommandLine(kind.GetProgram(), argc, argv, options)) return kExitUsage;
  if (options.action == Options::Action::kShowHelp) {
    std::fputs(FormatHelp(kind.GetProgram()).c_str(), stdout);
    return kExitDone;
  }
  if (options.action == Options::Action::kShowVersion) {
    std::printf("%s %s\n", kind.GetProgram(), TAVIX_VERSION);
    return kExitDone;
  }
  ConfigureLog(options.logLevel);
  try {
    const Configuration configuration = Read(kind, options);
    if (options.action == Options::Action::kCheck) return Check(kind, configuration);
    return Serve(kind, configuration, options);
  } catch (const ConfigurationError& error) {
    return Fail(kExitConfiguration, error);
  } catch (const Unavailable& exception) {
    return Fail(kExitUnavailable, exception);
  } catch (const std::exception& exception) {
    return Fail(kExitFailure, exception);
  }
}

}  // namespace tavix::bridge
