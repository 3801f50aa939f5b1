#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "programs/server/options/Limits.h"
#include "programs/server/options/ListenAddress.h"
#include "programs/server/persistence/Durability.h"

namespace tavix::daemon {

// What a layer of settings is loaded from, the winner last: the paths in their order, then the drop-ins.
struct LayerSources {
  std::vector<std::string> paths;        // ini files, or directories of *.ini
  std::vector<std::string> directories;  // of drop-ins, the strongest last
};

// Where log lines go, and which.
struct LogOptions {
  int level = 5;
  bool standardError = true;
  bool systemLog = false;
  std::string file;  // empty: none
};

// What the command line and the configuration file ask for together.
struct Options {
  enum class Action { kServe, kCheck, kShowHelp, kShowVersion };

  Action action = Action::kServe;
  std::string configuration = "/etc/tavix-settings/server.conf";
  bool configurationWasGiven = false;

  std::vector<ListenAddress> listen;
  bool allowRemote = false;
  mode_t unixMode = 0660;
  std::string unixGroup;            // empty: the daemon's own
  std::vector<uid_t> allowedUsers;  // on unix sockets; empty: all that the files' permissions let in

  LayerSources defaults;
  LayerSources restricted;
  std::string userSettings;  // a file; empty: nothing is persisted
  Durability durability;     // of that file
  size_t historyBytes = 0;   // of its history; 0: there is none
  size_t checkpoints = 8;    // of that file; 0: none are made
  size_t trials = 16;        // that are pending at once; 0: nothing is put on trial
  size_t stopSeconds = 10;   // for what is to be saved at the end

  std::string metricsFile;  // empty: none
  size_t metricsSeconds = 15;
  LogOptions log;

  size_t loops = 0;  // threads that serve
  Limits limits;
};

}  // namespace tavix::daemon
