#include "programs/web/Program.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "programs/common/ServiceManager.h"
#include "programs/common/Signals.h"
#include "programs/common/client/Join.h"
#include "programs/web/ExitCode.h"
#include "programs/web/access/Access.h"
#include "programs/web/access/Certificate.h"
#include "programs/web/access/Password.h"
#include "programs/web/http/Listener.h"
#include "programs/web/options/CommandLine.h"
#include "programs/web/service/ErrorLine.h"
#include "programs/web/service/Server.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolClient.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tavix::web {

namespace {

// What ends the program before it serves.
class Failure : public osa::Exception {
 public:
  Failure(ExitCode code, const std::string& message) : Exception(message), _code(code) {}

  ExitCode GetCode() const { return _code; }

 private:
  ExitCode _code;
};

template <class Step>
auto OrFail(ExitCode code, Step step) {
  try {
    return step();
  } catch (const std::exception& exception) {
    throw Failure(code, exception.what());
  }
}

int Fail(ExitCode code, const std::exception& exception) {
  PrintError(exception.what());
  return code;
}

// The address that the client library would take.
bool IsUnixServer(const Options& options) {
  const char* const given = options.server.empty() ? std::getenv("TAVIX_SETTINGS_SERVER") : options.server.c_str();
  return given && std::string(given).compare(0, 5, "unix:") == 0;
}

// Nobody gets in by this program who could not get in without it.
void RefuseOpenDoors(const Options& options, const Access& access, const std::vector<Listener>& listeners) {
  const bool isRemote = std::any_of(listeners.begin(), listeners.end(), [](const Listener& listener) {
    return !listener.IsUnix() && !listener.IsLoopback();
  });
  if (isRemote && !options.allowsRemote)
    throw Failure(kExitConfiguration,
                  programs::Join({"'", options.listen, "' is reached by other machines: --allow-remote allows that"}));
  if (isRemote && !access.HasSecrets())
    throw Failure(kExitConfiguration, "--allow-remote needs --password-file or --token-file");
  if (IsUnixServer(options) && !access.HasSecrets())
    throw Failure(
        kExitConfiguration,
        "the daemon is on a unix socket, whose permissions this program would undo without --password-file or "
        "--token-file");
}

int PrintPasswordHash() {
  std::string password;
  char part[1024];
  ssize_t count = 0;
  while ((count = read(STDIN_FILENO, part, sizeof part)) > 0) password.append(part, static_cast<size_t>(count));
  while (!password.empty() && (password.back() == '\n' || password.back() == '\r')) password.pop_back();
  if (password.empty()) throw Failure(kExitUsage, "expected a password on standard input");
  std::printf("%s\n", HashPassword(password).c_str());
  return kExitDone;
}

// What a large answer or a whole store took goes back to the system. The allocator would raise these limits by itself
// behind the first of them, and keep as much.
void BoundUnusedMemory() {
#ifdef __GLIBC__
  constexpr int kLargeBlock = 256 * 1024;
  constexpr int kMaxUnused = 1024 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kMaxUnused);
#endif
}

int Serve(const Options& options) {
  BoundUnusedMemory();
  programs::Signals::Block();
  const programs::Signals signals;
  const programs::ServiceManager serviceManager;
  Access access = OrFail(kExitConfiguration, [&] { return Access(options); });
  auto encryption = OrFail(kExitConfiguration, [&] { return LoadEncryption(options); });
  const std::vector<Listener> listeners = OrFail(kExitUnavailable, [&] { return OpenListeners(options.listen); });
  RefuseOpenDoors(options, access, listeners);
  {
    Server server(options, access, std::move(encryption), listeners, signals);
    for (const Listener& listener : listeners)
      std::printf("tavix-settings-web: listening on %s\n", listener.GetAddress().c_str());
    std::fflush(stdout);
    serviceManager.Notify("READY=1");
    server.Run();
    serviceManager.Notify("STOPPING=1");
  }
  return kExitDone;
}

}  // namespace

int RunProgram(int argc, char** argv) {
  Options options;
  if (!ParseCommandLine(argc, argv, options)) return kExitUsage;
  try {
    switch (options.action) {
      case Options::Action::kShowHelp:
        std::fputs(FormatHelp().c_str(), stdout);
        return kExitDone;
      case Options::Action::kShowVersion:
        std::puts("tavix-settings-web " TAVIX_VERSION);
        return kExitDone;
      case Options::Action::kHashPassword:
        return PrintPasswordHash();
      case Options::Action::kServe:
        break;
    }
    return Serve(options);
  } catch (const Failure& failure) {
    return Fail(failure.GetCode(), failure);
  } catch (const std::exception& exception) {
    return Fail(kExitFailure, exception);
  }
}

}  // namespace tavix::web
