#include "programs/server/Program.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>

#include "programs/server/Options.h"
#include "programs/server/Server.h"
#include "programs/server/SettingsSources.h"
#include "programs/server/StopSignals.h"

namespace tavix::daemon {

namespace {

int Fail(ExitCode code, const std::exception& exception) {
  std::fprintf(stderr, "tavix-settings-server: %s\n", exception.what());
  return code;
}

void PrintReport(const SettingsSources& sources, const SettingsStore& store) {
  for (const SettingsSources::Report& report : sources.GetReports()) std::printf("%s\n", report.ToText().c_str());
  std::printf("ok: %zu groups\n", store.CountGroups());
}

int Serve(const Options& options, SettingsStore& store) {
  const StopSignals signals;
  std::unique_ptr<Server> server;
  try {
    server = std::make_unique<Server>(store, options.listen, options.allowRemote, options.loops, options.limits);
  } catch (const std::exception& exception) {
    return Fail(kExitUnavailable, exception);
  }
  for (const std::string& address : server->GetAddresses())
    std::printf("tavix-settings-server: listening on %s\n", address.c_str());
  std::fflush(stdout);
  server->Run(signals);
  return store.SaveLastChange() ? kExitDone : kExitNotSaved;
}

}  // namespace

int RunProgram(int argc, char** argv) {
  Options options;
  switch (ParseOptions(argc, argv, options)) {
    case OptionsResult::kRun:
      break;
    case OptionsResult::kDone:
      return kExitDone;
    case OptionsResult::kError:
      return kExitUsage;
  }
  std::signal(SIGPIPE, SIG_IGN);
  StopSignals::Block();
  try {
    SettingsSources sources(options.defaults, options.restricted, options.userSettings);
    std::unique_ptr<SettingsStore> store;
    try {
      store = std::make_unique<SettingsStore>(sources);
    } catch (const std::exception& exception) {
      return Fail(kExitConfiguration, exception);
    }
    if (options.check) {
      PrintReport(sources, *store);
      return kExitDone;
    }
    return Serve(options, *store);
  } catch (const std::exception& exception) {
    return Fail(kExitFailure, exception);
  }
}

}  // namespace tavix::daemon
