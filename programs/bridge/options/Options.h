#pragma once

#include <chrono>
#include <string>

#include "tavix/core/Logger.h"

namespace tavix::bridge {

// What the program was told. A plain value.
struct Options {
  enum class Action { kServe, kCheck, kShowHelp, kShowVersion };

  Action action = Action::kServe;
  std::string config;       // a file
  std::string metricsFile;  // empty: none
  std::chrono::seconds metricsInterval{15};
  int logLevel = core::kLogInformation;
};

}  // namespace tavix::bridge
