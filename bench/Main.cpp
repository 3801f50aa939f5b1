// tavix-bench: measures the library and the daemon beside floors and peers. bench/run starts it.

#include <getopt.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Report.h"
#include "bench/Suite.h"

namespace {

using namespace tavix::bench;

constexpr int kExitDone = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 64;

constexpr char kHelp[] =
    R"(Usage: bench/run [OPTION]...
Measures the library and the daemon, and floors and peers in the same run.

  --only ITEM,...  measure these items; '*' in one stands for any text
  --quick          one round of few samples, for a first look
  --rounds N       rounds, 4 when not given
  --ours-only      measure neither floors nor peers
  --json           print one JSON object a line instead of the table
  --build DIR      where the programs were built
  --disk DIR       where files are written
  --help           show this text
)";

struct Options {
  Setup setup;
  std::vector<std::string> only;
  int rounds = 4;
  bool json = false;
};

std::vector<std::string> SplitAtCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
  return parts;
}

enum OptionCode : int { kOnly = 256, kQuick, kRounds, kOursOnly, kJson, kBuild, kDirectory, kShowHelp };

const option kOptions[] = {
    {"only", required_argument, nullptr, kOnly},
    {"quick", no_argument, nullptr, kQuick},
    {"rounds", required_argument, nullptr, kRounds},
    {"ours-only", no_argument, nullptr, kOursOnly},
    {"json", no_argument, nullptr, kJson},
    {"build", required_argument, nullptr, kBuild},
    {"directory", required_argument, nullptr, kDirectory},
    {"help", no_argument, nullptr, kShowHelp},
    {nullptr, 0, nullptr, 0},
};

// -1, or what to exit with.
int ParseOptions(int argc, char** argv, Options& options) {
  std::string build;
  for (int code = 0; (code = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (code) {
      case kOnly:
        options.only = SplitAtCommas(optarg);
        break;
      case kQuick:
        options.setup.quick = true;
        options.rounds = 1;
        break;
      case kRounds:
        options.rounds = std::atoi(optarg);
        break;
      case kOursOnly:
        options.setup.oursOnly = true;
        break;
      case kJson:
        options.json = true;
        break;
      case kBuild:
        build = optarg;
        break;
      case kDirectory:
        options.setup.directory = optarg;
        break;
      case kShowHelp:
        std::fputs(kHelp, stdout);
        return kExitDone;
      default:
        return kExitUsage;
    }
  }
  if (optind < argc || options.rounds < 1 || build.empty() || options.setup.directory.empty()) {
    std::fputs(kHelp, stderr);
    return kExitUsage;
  }
  options.setup.server = build + "/programs/server/tavix-settings-server";
  options.setup.command = build + "/programs/cli/tavix-settings";
  options.setup.bridge = build + "/programs/bridge/tavix-settings-bridge-mqtt";
  options.setup.web = build + "/programs/web/tavix-settings-web";
  options.setup.bareMap = build + "/bench/tavix-bench-bare-map";
  options.setup.slowDisk = build + "/bench/tavix-bench-slow-disk.so";
  return -1;
}

int Run(const Options& options) {
  Suite suite;
  AddSettingsTextBenches(suite);
  AddDocumentBenches(suite);
  AddMatchBenches(suite);
  AddStoreBenches(suite);
  AddDispatchBenches(suite);
  AddRoundTripBenches(suite);
  AddThroughputBenches(suite);
  AddLoopsBenches(suite);
  AddDurableBenches(suite);
  AddUnderMergeBenches(suite);
  AddLoadBenches(suite);
  AddNotifyBenches(suite);
  AddCInterfaceBenches(suite);
  AddPythonBenches(suite);
  AddFootprintBenches(suite);
  AddLayersBenches(suite);
  AddCommandBenches(suite);
  AddBridgeBenches(suite);
  AddWebBenches(suite);
  if (!options.only.empty() && !suite.Select(options.only)) return kExitUsage;

  Report report;
  const bool allRan = suite.Run(options.setup, options.rounds, report);
  if (options.json) {
    report.PrintJson(stdout);
  } else {
    report.PrintTable(stdout, suite.GetComparisons());
  }
  return allRan ? kExitDone : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  Options options;
  const int status = ParseOptions(argc, argv, options);
  return status >= 0 ? status : Run(options);
}
