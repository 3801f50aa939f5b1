#include "programs/server/Program.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>

#include "programs/common/Deadline.h"
#include "programs/common/ServiceManager.h"
#include "programs/common/Signals.h"
#include "programs/server/Check.h"
#include "programs/server/ExitCode.h"
#include "programs/server/LifeLog.h"
#include "programs/server/LogSetup.h"
#include "programs/server/Server.h"
#include "programs/server/Upkeep.h"
#include "programs/server/connections/ConnectionRoom.h"
#include "programs/server/options/CommandLine.h"
#include "programs/server/persistence/StartReads.h"
#include "programs/server/store/FilePlaces.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/SettingsStore.h"
#include "programs/server/store/StoreProbe.h"
#include "programs/server/system/FileLock.h"
#include "programs/server/system/MemorySize.h"
#include "programs/server/system/UnusedMemory.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

constexpr std::chrono::seconds kMaxLogTime{3};  // of the 5 s beside --stop-timeout

// What ends the program before it serves.
class Failure : public osa::Exception {
 public:
  Failure(ExitCode code, const std::string& message) : Exception(message), _code(code) {}

  ExitCode GetCode() const { return _code; }

 private:
  ExitCode _code;
};

ExitCode CodeOf(UserSettingsRefused::Reason reason) {
  return reason == UserSettingsRefused::Reason::kNoResources ? kExitResources : kExitConfiguration;
}

// Does one step of the start; what it throws ends the program with that code.
template <class Step>
auto OrFail(ExitCode code, Step step) {
  try {
    return step();
  } catch (const UserSettingsRefused& refused) {
    throw Failure(CodeOf(refused.GetReason()), refused.what());
  } catch (const std::bad_alloc&) {
    throw Failure(kExitResources, "Failed to start: out of memory");
  } catch (const std::exception& exception) {
    throw Failure(code, exception.what());
  }
}

// The status tells the most of it; standard error on a pipe that nobody reads must not keep the daemon from ending.
int Fail(ExitCode code, const std::exception& exception) {
  const char* const level = programs::ServiceManager::HasJournal() ? "<3>" : "";
  pollfd errors{STDERR_FILENO, POLLOUT, 0};
  if (poll(&errors, 1, 0) == 1 && (errors.revents & POLLOUT))
    std::fprintf(stderr, "%stavix-settings-server: %s\n", level, exception.what());
  return code;
}

// None when there is no file to lock, and when there is no lock's file and none can be made: a device with a disk that
// is full or read-only must start all the same. A lock that is there and can't be had is another daemon's.
std::unique_ptr<FileLock> LockUserSettings(const std::string& file) {
  if (file.empty()) return nullptr;
  try {
    return std::make_unique<FileLock>(file);
  } catch (const FileLock::CanNotBeMade& exception) {
    core::Logger::GetLogger("Program")->Warning("%s; nothing keeps a second daemon off the user settings",
                                                exception.what());
    return nullptr;
  }
}

void WarnUnlessKept(const std::string& userSettings) {
  const std::string problem = FindWhyNotKept(userSettings);
  if (!problem.empty()) core::Logger::GetLogger("Program")->Warning("%s", problem.c_str());
}

void WarnOfOpenDoors(const std::vector<Listener>& listeners, const Options& options) {
  for (const Listener& listener : listeners) {
    if (listener.IsUnix() || options.allowedUsers.empty()) continue;
    core::Logger::GetLogger("Program")->Warning("--allow-uid counts for unix sockets alone: %s lets every user in",
                                                listener.GetAddress().c_str());
  }
}

// For people; one line each on standard output.
std::string Announce(const Server& server) {
  std::string all;
  for (const std::string& address : server.GetAddresses()) {
    std::printf("tavix-settings-server: listening on %s\n", address.c_str());
    all += (all.empty() ? "" : ", ") + address;
  }
  std::fflush(stdout);
  return all;
}

// A disk that hangs must not keep the daemon from ending before the service manager loses patience, and neither must a
// log that nobody reads.
void EndAtOnce(bool isSaved, bool hasFailed, const LifeLog& life) {
  const int status = hasFailed ? kExitFailure : isSaved ? kExitDone : kExitNotSaved;
  const programs::Deadline silent(kMaxLogTime, [status] { _exit(status); });
  core::Logger::GetLogger("UserSettings")
      ->Error("The disk does not answer; the daemon ends without a snapshot%s",
              isSaved ? "" : ", and the last changes are lost");
  life.LogEnd(isSaved);
  _exit(status);
}

std::unique_ptr<SettingsStore> LoadStore(SettingsSources& sources, const Options& options, Counters& counters) {
  return OrFail(kExitConfiguration, [&] { return std::make_unique<SettingsStore>(sources, options, counters); });
}

void WarnIfFull(const SettingsStore& store) {
  const std::string fullness = store.DescribeFullness();
  if (!fullness.empty()) core::Logger::GetLogger("Server")->Warning("%s", fullness.c_str());
}

// The listeners come before the settings, so that clients queue, and are not refused, while a large store is loaded.
int Serve(Options options, const std::vector<GivenOption>& commandLine) {
  const programs::Signals signals;
  const programs::ServiceManager serviceManager;
  LifeLog life(options);
  options.limits = MakeRoomForConnections(options.limits, options.loops);
  OrFail(kExitConfiguration, [&] { ResolvePlaces(options); });
  WarnUnlessKept(options.userSettings);
  const auto lock = OrFail(kExitUnavailable, [&] { return LockUserSettings(options.userSettings); });
  std::vector<Listener> listeners = OrFail(kExitUnavailable, [&] { return Listener::OpenAll(options); });
  WarnOfOpenDoors(listeners, options);
  serviceManager.Notify("STATUS=Loading settings");
  Counters counters;
  SettingsSources sources(options, counters);
  const auto store = LoadStore(sources, options, counters);
  life.LogLoaded(sources);
  WarnIfFull(*store);
  {
    Server server(*store, std::move(listeners), options, counters);
    const auto probe = [&] {
      ProbeStore(store->GetManager());
      server.Probe();
    };
    const std::string addresses = Announce(server);
    life.LogServing(addresses, store->CountGroups());
    Upkeep upkeep(options, commandLine, addresses, counters, store->GetManager(), serviceManager, probe);
    server.Run(signals, [&](const programs::Signals::Signal& signal) {
      if (signal.number == SIGTERM || signal.number == SIGINT) {
        life.BeginEnd();
        const bool hasFailed = signal.process == getpid();  // an event loop
        store->LimitEnd([&life, hasFailed](bool isSaved) { EndAtOnce(isSaved, hasFailed, life); });
        life.LogEnding(signal);
      }
      upkeep.OnSignal(signal.number);
    });
  }
  const bool isSaved = store->Finish();
  const int status = isSaved ? kExitDone : kExitNotSaved;
  const programs::Deadline silent(kMaxLogTime, [status] { _exit(status); });  // a log on a disk that hangs
  life.LogEnd(isSaved);
  return status;
}

}  // namespace

int RunProgram(int argc, char** argv) {
  std::vector<GivenOption> commandLine;
  if (!ParseCommandLine(argc, argv, commandLine)) return kExitUsage;
  LogOptions log;  // as far as it is set up
  try {
    switch (FindAction(commandLine)) {
      case Options::Action::kShowHelp:
        std::fputs(FormatHelp(FindDefaultLimits()).c_str(), stdout);
        return kExitDone;
      case Options::Action::kShowVersion:
        std::puts("tavix-settings-server " TAVIX_VERSION);
        return kExitDone;
      case Options::Action::kCheck:
      case Options::Action::kServe:
        break;
    }
    const Options options = OrFail(kExitConfiguration, [&] { return ReadOptions(commandLine); });
    if (options.action == Options::Action::kCheck) return RunCheck(options);
    programs::Signals::Block();
    LimitFreedMemory(FreedMemoryLimits::Choose(MemorySize().GetBytes()));
    ConfigureLog(options.log);
    log = options.log;
    return Serve(options, commandLine);
  } catch (const Failure& failure) {
    LifeLog::LogFailure(log, failure.what());
    return Fail(failure.GetCode(), failure);
  } catch (const std::exception& exception) {
    LifeLog::LogFailure(log, exception.what());
    return Fail(kExitFailure, exception);
  }
}

}  // namespace tavix::daemon
