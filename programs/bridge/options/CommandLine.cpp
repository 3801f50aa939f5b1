#include "programs/bridge/options/CommandLine.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <optional>

namespace tavix::bridge {

namespace {

constexpr int kMaxSeconds = 86'400;
constexpr int kMaxLevel = core::kLogTrace;

enum Code { kConfig = 256, kCheck, kMetricsFile, kMetricsInterval, kLogLevel, kHelp, kVersion };

constexpr option kKnown[] = {{"config", required_argument, nullptr, kConfig},
                             {"check", no_argument, nullptr, kCheck},
                             {"metrics-file", required_argument, nullptr, kMetricsFile},
                             {"metrics-interval", required_argument, nullptr, kMetricsInterval},
                             {"log-level", required_argument, nullptr, kLogLevel},
                             {"help", no_argument, nullptr, kHelp},
                             {"version", no_argument, nullptr, kVersion},
                             {nullptr, 0, nullptr, 0}};

constexpr char kHelpText[] =
    "Mirrors settings of this device to a store outside of it.\n\n"
    "  --config FILE             The configuration; required\n"
    "  --check                   Check the configuration, and end\n"
    "  --metrics-file FILE       Keep this file filled with figures in Prometheus' text format (none)\n"
    "  --metrics-interval S      How often, in seconds (15)\n"
    "  --log-level LEVEL         Messages up to this level: 3 errors, 4 warnings, 6 information (6)\n"
    "  --help                    Print this text\n"
    "  --version                 Print the version\n";

std::optional<int> ParseNumber(const std::string& text, int min, int max) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  return isNumber && number >= min && number <= max ? std::optional<int>(number) : std::nullopt;
}

bool UsageError(const char* program, const std::string& reason) {
  if (!reason.empty()) std::fprintf(stderr, "%s: %s\n", program, reason.c_str());
  std::fprintf(stderr, "Try '%s --help'.\n", program);
  return false;
}

// Returns what is wrong; empty: nothing.
std::string Apply(int code, const std::string& value, Options& options) {
  std::optional<int> number;
  switch (code) {
    case kConfig:
      options.config = value;
      return value.empty() ? "--config: a file is missing" : "";
    case kCheck:
      options.action = Options::Action::kCheck;
      return "";
    case kMetricsFile:
      options.metricsFile = value;
      return "";
    case kMetricsInterval:
      number = ParseNumber(value, 1, kMaxSeconds);
      options.metricsInterval = std::chrono::seconds(number.value_or(0));
      return number ? "" : "--metrics-interval '" + value + "': expected a number of seconds from 1 to 86400";
    case kLogLevel:
      number = ParseNumber(value, 0, kMaxLevel);
      options.logLevel = number.value_or(0);
      return number ? "" : "--log-level '" + value + "': expected a number from 0 to 8";
    case kHelp:
      options.action = Options::Action::kShowHelp;
      return "";
    default:
      options.action = Options::Action::kShowVersion;
      return "";
  }
}

}  // namespace

bool ParseCommandLine(const char* program, int argc, char** argv, Options& options) {
  optind = 1;
  for (int code = 0; (code = getopt_long(argc, argv, "", kKnown, nullptr)) != -1;) {
    if (code < kConfig) return UsageError(program, "");
    const std::string problem = Apply(code, optarg != nullptr ? optarg : "", options);
    if (!problem.empty()) return UsageError(program, problem);
  }
  if (optind < argc) return UsageError(program, std::string("unexpected argument '") + argv[optind] + "'");
  const bool isForPeople =
      options.action == Options::Action::kShowHelp || options.action == Options::Action::kShowVersion;
  if (options.config.empty() && !isForPeople) return UsageError(program, "--config FILE is missing");
  return true;
}

std::string FormatHelp(const char* program) {
  return std::string("Usage: ") + program + " --config FILE [OPTION...]\n\n" + kHelpText;
}

}  // namespace tavix::bridge
