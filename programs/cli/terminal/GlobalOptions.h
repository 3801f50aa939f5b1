#pragma once

#include <chrono>
#include <string>

namespace tavix::programs::cli {

// How data is printed.
enum class Output {
  kText,   // for people
  kIni,    // settings text, docs/settings-text.md
  kJson,   // one document; groups are objects of keys
  kShell,  // assignments that a shell can evaluate
  kValue,  // bare values, or bare names
};

enum class ColorChoice { kAuto, kAlways, kNever };

// What may stand before or after any command.
struct GlobalOptions {
  std::string server;            // HOST[:PORT] or unix:PATH; empty: what the environment and the hosts database say
  std::string local;             // a settings file instead of a server
  bool isLocalReadOnly = false;  // TAVIX_SETTINGS_LOCALFILE names it
  double timeout = 2;            // seconds that the server may keep silent
  Output output = Output::kText;
  bool quiet = false;
  bool verbose = false;
  ColorChoice color = ColorChoice::kAuto;

  std::chrono::milliseconds GetTimeout() const {
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(timeout));
  }
};

}  // namespace tavix::programs::cli
