#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "programs/server/Limits.h"

namespace tavix::daemon {

// What the command line asks for.
struct Options {
  std::vector<std::string> listen;      // HOST:PORT each; never empty after ParseOptions
  std::vector<std::string> defaults;    // ini files, or directories of *.ini
  std::vector<std::string> restricted;  // the same
  std::string userSettings;             // a file; empty: nothing is persisted
  bool allowRemote = false;
  size_t loops = 0;  // threads that serve; never 0 after ParseOptions
  Limits limits;
  bool check = false;
};

enum class OptionsResult {
  kRun,    // go on
  kDone,   // help or version was printed
  kError,  // a message was printed to standard error
};

OptionsResult ParseOptions(int argc, char** argv, Options& options);

}  // namespace tavix::daemon
