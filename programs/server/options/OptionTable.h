#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// One option: "--name" on the command line, "name" in the configuration file.
struct OptionEntry {
  enum class Kind {
    kValue,    // takes one value; the last one counts
    kList,     // may be repeated; in the file a list with commas
    kFlag,     // true when it stands alone; also takes true or false
    kCommand,  // takes no value
  };

  const char* section;  // the heading in the help; empty: the one before
  const char* name;
  const char* argument;  // what the help calls the value; empty: there is none to show
  Kind kind;
  bool inFile;       // whether the configuration file may hold it
  const char* help;  // may hold {}, for what "limit" comes to

  // Takes one value over. Throws osa::Exception with what was expected instead: "expected a number from 1 to 64".
  std::function<void(Options& options, const std::string& value)> apply;

  size_t Limits::*limit = nullptr;  // the bound of memory that this is; null: it is none
};

// Every option there is: the one list that the command line, the configuration file and the help are made from.
const std::vector<OptionEntry>& GetOptionTable();

// Null when there is no such option.
const OptionEntry* FindOption(const std::string& name);

// The help's text. limits: what holds where no option is given.
std::string FormatHelp(const Limits& limits);

}  // namespace tavix::daemon
