#include "programs/server/options/CommandLine.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "programs/server/options/ConfigurationFile.h"
#include "programs/server/options/MemoryShares.h"
#include "programs/server/options/OptionValues.h"
#include "programs/server/system/MemorySize.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

using Kind = OptionEntry::Kind;

constexpr int kFirstCode = 256;  // of the table's first option; smaller ones are characters

int ArgumentOf(Kind kind) {
  if (kind == Kind::kCommand) return no_argument;
  return kind == Kind::kFlag ? optional_argument : required_argument;
}

std::vector<option> MakeSystemTable() {
  std::vector<option> options;
  int code = kFirstCode;
  for (const OptionEntry& entry : GetOptionTable())
    options.push_back({entry.name, ArgumentOf(entry.kind), nullptr, code++});
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

bool UsageError() {
  std::fputs("Try 'tavix-settings-server --help'.\n", stderr);
  return false;
}

// Whether the value is right; prints what is wrong otherwise.
bool TryValue(const OptionEntry& entry, const std::string& value) {
  try {
    Options scratch;
    entry.apply(scratch, value);
    return true;
  } catch (const osa::Exception& exception) {
    std::fprintf(stderr, "tavix-settings-server: --%s '%s': %s\n", entry.name, value.c_str(), exception.what());
    return false;
  }
}

const OptionEntry& EntryOf(int code) {
  return code == 'h' ? *FindOption("help") : GetOptionTable()[static_cast<size_t>(code - kFirstCode)];
}

// What stands behind a flag as a word of its own, if that is "true" or the like; else nothing. The system's reader of
// options takes it only behind a "=".
std::string TakeFlag(const OptionEntry& entry, int argc, char** argv) {
  if (entry.kind != Kind::kFlag || optind >= argc || !*argv[optind]) return "";
  try {
    ParseFlag(argv[optind]);
  } catch (const osa::Exception&) {
    return "";
  }
  return argv[optind++];
}

// The usual places of drop-ins, for a layer that nobody gave anything.
void SetUsualPlaces(LayerSources& layer, const char* folder) {
  if (!layer.paths.empty() || !layer.directories.empty()) return;
  for (const char* place : {"/usr/share/tavix-settings/", "/run/tavix-settings/", "/etc/tavix-settings/"})
    layer.directories.push_back(std::string(place) + folder);
}

void SetDefaults(Options& options) {
  SetUsualPlaces(options.defaults, "defaults.d");
  SetUsualPlaces(options.restricted, "restricted.d");
  if (options.loops == 0) options.loops = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 2);
}

void Apply(const std::vector<GivenOption>& given, Options& options) {
  for (const GivenOption& one : given) one.option->apply(options, one.value);
}

// What no option gives is as "limits" have it.
Options MakeOptions(const Limits& limits, const std::vector<GivenOption>& given) {
  Options options;
  options.limits = limits;
  Apply(given, options);
  return options;
}

}  // namespace

Limits FindDefaultLimits() {
  return ShareMemory(MemorySize().GetBytes());
}

bool ParseCommandLine(int argc, char** argv, std::vector<GivenOption>& given) {
  const std::vector<option> known = MakeSystemTable();
  optind = 1;
  for (int code = 0; (code = getopt_long(argc, argv, "h", known.data(), nullptr)) != -1;) {
    if (code < kFirstCode && code != 'h') return UsageError();
    const OptionEntry& entry = EntryOf(code);
    given.push_back({&entry, optarg ? optarg : TakeFlag(entry, argc, argv)});
    if (!TryValue(entry, given.back().value)) return UsageError();
  }
  if (optind == argc) return true;
  std::fprintf(stderr, "tavix-settings-server: unexpected argument '%s'\n", argv[optind]);
  return UsageError();
}

Options::Action FindAction(const std::vector<GivenOption>& commandLine) {
  Options options;
  Apply(commandLine, options);
  return options.action;
}

Options ReadOptions(const std::vector<GivenOption>& commandLine) {
  Options options;
  Apply(commandLine, options);
  std::vector<GivenOption> all = ReadConfigurationFile(options.configuration, options.configurationWasGiven);
  const auto isOverruled = [&](const GivenOption& one) {
    return std::any_of(commandLine.begin(), commandLine.end(),
                       [&](const GivenOption& other) { return other.option == one.option; });
  };
  all.erase(std::remove_if(all.begin(), all.end(), isOverruled), all.end());
  all.insert(all.end(), commandLine.begin(), commandLine.end());
  options = MakeOptions(FindDefaultLimits(), all);
  if (options.historyBytes > 0 && options.userSettings.empty())
    throw osa::Exception("--history: there is nothing to keep a history of without --user-settings");
  SetDefaults(options);
  return options;
}

}  // namespace tavix::daemon
