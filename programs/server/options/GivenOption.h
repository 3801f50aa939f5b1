#pragma once

#include <string>

#include "programs/server/options/OptionTable.h"

namespace tavix::daemon {

// An option with the value that somebody gave it.
struct GivenOption {
  const OptionEntry* option;
  std::string value;
};

}  // namespace tavix::daemon
