#include "programs/server/Options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <thread>

namespace tavix::daemon {

namespace {

constexpr char kHelp[] =
    R"(Usage: tavix-settings-server [OPTION]...
Keeps a device's settings and serves them to its processes.

  --listen HOST:PORT    serve on this address; may be repeated. Port 0 lets the
                        kernel pick. Default: 127.0.0.1:7211
  --allow-remote        let --listen name an address that is not loopback. The
                        protocol knows no passwords: whoever reaches the port
                        may read everything and change most of it
  --defaults PATH       default settings: an ini file, or a directory whose
                        *.ini are loaded in lexical order; may be repeated
  --restricted PATH     restricted settings, which clients can't change; as above
  --user-settings FILE  where the users' changes are kept; may not exist yet.
                        Without it nothing is persisted
  --check               load everything, say what was loaded, serve nothing
  --help                show this text
  --version             show the version

Exit status: 0 done; 64 usage; 69 an address can't be listened on; 74 the last
change could not be saved; 78 a settings file can't be read or parsed.
)";

enum OptionCode : int {
  kListen = 256,
  kAllowRemote,
  kDefaults,
  kRestricted,
  kUserSettings,
  kCheck,
  kShowHelp,
  kShowVersion,
};

const option kOptions[] = {
    {"listen", required_argument, nullptr, kListen},
    {"allow-remote", no_argument, nullptr, kAllowRemote},
    {"defaults", required_argument, nullptr, kDefaults},
    {"restricted", required_argument, nullptr, kRestricted},
    {"user-settings", required_argument, nullptr, kUserSettings},
    {"check", no_argument, nullptr, kCheck},
    {"help", no_argument, nullptr, kShowHelp},
    {"version", no_argument, nullptr, kShowVersion},
    {nullptr, 0, nullptr, 0},
};

OptionsResult UsageError() {
  std::fputs("Try 'tavix-settings-server --help'.\n", stderr);
  return OptionsResult::kError;
}

}  // namespace

OptionsResult ParseOptions(int argc, char** argv, Options& options) {
  optind = 1;
  for (int code = 0; (code = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (code) {
      case kListen:
        options.listen.emplace_back(optarg);
        break;
      case kAllowRemote:
        options.allowRemote = true;
        break;
      case kDefaults:
        options.defaults.emplace_back(optarg);
        break;
      case kRestricted:
        options.restricted.emplace_back(optarg);
        break;
      case kUserSettings:
        options.userSettings = optarg;
        break;
      case kCheck:
        options.check = true;
        break;
      case kShowHelp:
        std::fputs(kHelp, stdout);
        return OptionsResult::kDone;
      case kShowVersion:
        std::puts("tavix-settings-server " TAVIX_VERSION);
        return OptionsResult::kDone;
      default:
        return UsageError();
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "tavix-settings-server: unexpected argument '%s'\n", argv[optind]);
    return UsageError();
  }
  if (options.listen.empty()) options.listen.emplace_back("127.0.0.1:7211");
  if (options.loops == 0) options.loops = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
  return OptionsResult::kRun;
}

}  // namespace tavix::daemon
