#include "programs/server/Options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace tavix::daemon {

namespace {

constexpr size_t kMostLoops = 64;
constexpr size_t kMostOfALimit = size_t{1} << 40;

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
  --loops N             threads that serve connections. Default: one a processor,
                        four at most
  --check               load everything, say what was loaded, serve nothing
  --help                show this text
  --version             show the version

Bounds; a client beyond one is disconnected:
  --max-connections N   clients at a time (1024)
  --max-subscriptions N names and patterns of one client (4096)
  --max-line BYTES      of one line that a client sends (1 MiB)
  --max-request BYTES   of one request (64 MiB)
  --request-timeout S   for an unfinished request (60)
  --max-backlog BYTES   unread by a client that makes no progress (8 MiB) ...
  --backlog-timeout S   ... for so long (10)
  --hard-backlog BYTES  unread by a client, whatever it does (256 MiB)

Exit status: 0 done; 64 usage; 69 an address can't be listened on; 74 the last
change could not be saved; 78 a settings file can't be read or parsed.
)";

enum OptionCode : int {
  kListen = 256,
  kAllowRemote,
  kDefaults,
  kRestricted,
  kUserSettings,
  kLoops,
  kCheck,
  kShowHelp,
  kShowVersion,
  kFirstNumber,  // the options of kNumbers, in their order
};

struct NumberOption {
  const char* name;
  size_t Limits::*limit;
};

constexpr NumberOption kNumbers[] = {
    {"max-connections", &Limits::connections},
    {"max-subscriptions", &Limits::subscriptions},
    {"max-line", &Limits::lineBytes},
    {"max-request", &Limits::requestBytes},
    {"request-timeout", &Limits::requestSeconds},
    {"max-backlog", &Limits::backlogBytes},
    {"backlog-timeout", &Limits::backlogSeconds},
    {"hard-backlog", &Limits::hardBacklogBytes},
};

std::vector<option> MakeOptions() {
  std::vector<option> options{
      {"listen", required_argument, nullptr, kListen},
      {"allow-remote", no_argument, nullptr, kAllowRemote},
      {"defaults", required_argument, nullptr, kDefaults},
      {"restricted", required_argument, nullptr, kRestricted},
      {"user-settings", required_argument, nullptr, kUserSettings},
      {"loops", required_argument, nullptr, kLoops},
      {"check", no_argument, nullptr, kCheck},
      {"help", no_argument, nullptr, kShowHelp},
      {"version", no_argument, nullptr, kShowVersion},
  };
  int code = kFirstNumber;
  for (const NumberOption& number : kNumbers) options.push_back({number.name, required_argument, nullptr, code++});
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

// A number from 1 to "most"; prints what is wrong otherwise.
bool ParseNumber(const char* name, const char* text, size_t most, size_t& number) {
  const char* end = text + std::strlen(text);
  size_t parsed = 0;
  const auto [stop, error] = std::from_chars(text, end, parsed);
  if (error == std::errc() && stop == end && parsed >= 1 && parsed <= most) {
    number = parsed;
    return true;
  }
  std::fprintf(stderr, "tavix-settings-server: --%s '%s': expected a number from 1 to %zu\n", name, text, most);
  return false;
}

bool ParseLimit(int index, const char* text, Limits& limits) {
  const NumberOption& option = kNumbers[index];
  return ParseNumber(option.name, text, kMostOfALimit, limits.*option.limit);
}

OptionsResult UsageError() {
  std::fputs("Try 'tavix-settings-server --help'.\n", stderr);
  return OptionsResult::kError;
}

}  // namespace

OptionsResult ParseOptions(int argc, char** argv, Options& options) {
  const std::vector<option> known = MakeOptions();
  optind = 1;
  for (int code = 0; (code = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
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
      case kLoops:
        if (!ParseNumber("loops", optarg, kMostLoops, options.loops)) return UsageError();
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
        if (code < kFirstNumber || !ParseLimit(code - kFirstNumber, optarg, options.limits)) return UsageError();
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "tavix-settings-server: unexpected argument '%s'\n", argv[optind]);
    return UsageError();
  }
  if (options.listen.empty()) options.listen.emplace_back("127.0.0.1:7211");
  if (options.loops == 0) options.loops = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
  return OptionsResult::kRun;
}

}  // namespace tavix::daemon
